#include "agent/Summary.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "agent/Say.h"
#include "common/Json.h"

namespace Agent {

using Json = nlohmann::ordered_json;

std::string summaryText(const Options& options, const Intake& intake, const Restart& restart,
                        std::uint64_t skipped) {
  Json tables = Json::array();
  for (const auto& table : intake.tables()) {
    const Common::TableFigures figures = table->figures();
    tables.push_back({{"table", table->name()},
                      {"unit", table->unit().value},
                      {"written", figures.written},
                      {"removed", figures.removed},
                      {"suppressed", figures.suppressed},
                      {"failed", intake.failed(*table)},
                      {"inLog", figures.inLog},
                      {"entries", figures.entries},
                      {"pending", figures.pending},
                      {"tableVersion", figures.tableVersion},
                      {"lastCleanedVersion", figures.lastCleanedVersion}});
  }
  const Intake::Totals& totals = intake.totals();
  const Json summary = {{"name", options.name},
                        {"units", options.units},
                        {"intents",
                         {{"accepted", totals.accepted},
                          {"skipped", skipped},
                          {"succeeded", totals.succeeded},
                          {"failed", totals.failed},
                          {"inFlight", intake.inFlight()},
                          {"waitingForResources", intake.retries().size()},
                          {"cameThroughAgain", totals.cameThroughAgain}}},
                        {"resourceEvents",
                         {{"applied", intake.events().totals().applied},
                          {"failed", intake.events().totals().failed}}},
                        {"replay", restart.summary()},
                        {"tables", tables}};
  return summary.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

bool writeSummary(const std::string& target, const std::string& text) {
  if (target == "-") {
    const bool written =
        std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
    if (!written) {
      say("cannot write the summary to the standard output: {}", std::strerror(errno));
    }
    return written;
  }
  // Whoever reads it meanwhile sees the old one or the new one.
  const std::string draft = target + ".new";
  std::ofstream file(draft, std::ios::trunc);
  file << text;
  file.close();
  if (!file || std::rename(draft.c_str(), target.c_str()) != 0) {
    say("{}: cannot write the summary: {}: name another file with --summary", target,
        std::strerror(errno));
    return false;
  }
  return true;
}

}  // namespace Agent
