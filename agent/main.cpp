#include <exception>

#include "agent/Agent.h"
#include "agent/Options.h"
#include "agent/Say.h"

// kelp-agent: drives the tables of a switch with the intents of its features.

int main(int argc, char** argv) {
  Agent::Options options;
  if (const auto status = Agent::readOptions(argc, argv, options)) {
    return *status;
  }
  try {
    Agent::Agent agent(options);
    return agent.run();
  } catch (const std::exception& error) {
    Agent::sayText(error.what());
    return Agent::kNotStarted;
  }
}
