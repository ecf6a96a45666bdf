#include <fmt/format.h>

#include <chrono>

#include "BriskTrace/Reader.h"
#include "kelp/LiveCommands.h"
#include "kelp/PlainJson.h"
#include "kelp/TextTable.h"
#include "kelp/brisk/MessageText.h"

namespace Kelp {
namespace {

void readRing(Live& live) {
  const Json ring = live.agent().call("trace", {{"handle", "-"}})["ring"];
  if (!ring.is_string()) {
    throw CommandError(kFailed,
                       "the agent writes no ring buffer: start kelp-agent with --brisk FILE");
  }
  BriskTrace::Reader reader{Lumen::String(ring.get<std::string>())};
  const auto since = live.options().since;
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const std::int64_t from =
      since ? std::chrono::nanoseconds(now - std::chrono::seconds(*since)).count() : 0;
  for (const BriskTrace::Message& message : reader.newMessages()) {
    if (!since || message.nanoseconds >= from) {
      live.out().line(live.json() ? messageJson(message) : messageText(message));
    }
  }
}

}  // namespace

void showTrace(Live& live) {
  const Options& options = live.options();
  if (options.read) {
    readRing(live);
    return;
  }
  Json params = Json::object();
  if (!options.handle.empty()) {
    params["handle"] = options.handle;
  }
  if (!options.levels.empty()) {
    params["levels"] = options.levels;
  }
  const Json trace = live.agent().call("trace", params);
  if (trace["handles"].empty()) {
    throw CommandError(kFailed, fmt::format("no trace handle fits \"{}\": kelp trace lists them",
                                            plainText(options.handle)));
  }
  if (live.json()) {
    live.printJson(trace);
    return;
  }
  TextTable table({"handle", "levels"});
  for (const Json& handle : trace["handles"]) {
    table.row({plainText(handle["handle"]), plainText(handle["levels"])});
  }
  table.print(live.out());
  live.out().line("");
  live.out().line("Levels that are on go to the agent's stderr.");
  live.out().line(trace["ring"].is_null()
                      ? "There is no ring buffer: kelp-agent --brisk FILE writes one."
                      : fmt::format("The ring buffer is {}; kelp trace --read prints it.",
                                    plainText(trace["ring"])));
}

}  // namespace Kelp
