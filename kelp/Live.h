#pragma once

#include <string>

#include "kelp/AgentClient.h"
#include "kelp/Output.h"
#include "kelp/Session.h"

namespace Kelp {

// A running agent that one command asks.
class Live {
 public:
  // Throws CommandError if no agent is there.
  explicit Live(const Options& options, std::chrono::milliseconds patience = AgentClient::kPatience)
      : options_(options), agent_(inspectPath(options), patience) {}

  [[nodiscard]] const Options& options() const noexcept { return options_; }
  [[nodiscard]] AgentClient& agent() noexcept { return agent_; }
  [[nodiscard]] Output& out() noexcept { return out_; }
  [[nodiscard]] bool json() const noexcept { return options_.json; }

  // Writes a document as a line.
  void printJson(const Json& json) {
    out_.line(json.dump(-1, ' ', false, Json::error_handler_t::replace));
  }

 private:
  Options options_;
  AgentClient agent_;
  Output out_;
};

}  // namespace Kelp
