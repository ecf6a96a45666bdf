#include <fmt/format.h>

#include "kelp/LiveCommands.h"
#include "kelp/PlainJson.h"
#include "kelp/TextTable.h"

namespace Kelp {
namespace {

std::string clientText(const Json& one) {
  return fmt::format("{} unit {}", plainText(one["table"]), plainText(one["unit"]));
}

void showClients(Live& live, const Json& users) {
  TextTable table({"client", "entries", "acknowledged", ""});
  for (const Json& client : users["clients"]) {
    table.row({clientText(client), plainText(client["entries"]),
               client["acknowledged"].is_null() ? "none" : plainText(client["acknowledged"]),
               client["behind"] == true ? "has not acknowledged this version" : ""});
  }
  table.print(live.out());
  for (const Json& client : users["clients"]) {
    for (const Json& key : client["keys"]) {
      live.out().line(fmt::format("  {} {}", clientText(client), plainText(key)));
    }
    if (client["keys"].size() < client["entries"]) {
      live.out().line(fmt::format("  {} of {} keys of {}; --limit N shows more",
                                  client["keys"].size(), plainText(client["entries"]),
                                  clientText(client)));
    }
  }
}

}  // namespace

void showUsers(Live& live) {
  Json params = {{"resource", live.options().resource}, {"key", keyArgument(live.options().key)}};
  if (live.options().limit) {
    params["limit"] = *live.options().limit;
  }
  const Json users = live.agent().call("users", params);
  if (live.json()) {
    live.printJson(users);
    return;
  }
  live.out().line(fmt::format("{} {}", plainText(users["resource"]), plainText(users["key"])));
  live.out().line(users["state"].is_null()
                      ? "  state    nobody has asked for it"
                      : fmt::format("  state    {}, version {}", plainText(users["state"]),
                                    plainText(users["version"])));
  if (!users["result"].empty()) {
    live.out().line(fmt::format("  result   {} (allocation {})", plainText(users["result"]),
                                plainText(users["index"])));
  }
  live.out().line(fmt::format("  entries  {}", plainText(users["entries"])));
  if (!users["clients"].empty()) {
    showClients(live, users);
  }
  for (const Json& one : users["waiting"]) {
    live.out().line(fmt::format("  waiting for {}: {} {} {} of {}:{}", durationText(one["seconds"]),
                                plainText(one["op"]), clientText(one), plainText(one["key"]),
                                plainText(one["source"]), plainText(one["line"])));
  }
  if (users["waiting"].size() < users["waitingCount"]) {
    live.out().line(fmt::format("  {} of {} that wait", users["waiting"].size(),
                                plainText(users["waitingCount"])));
  }
  for (const Json& one : users["releases"]) {
    live.out().line(fmt::format(
        "  given up by {}, {}", clientText(one),
        one["version"].is_null()
            ? std::string("from a version on that it has not said yet")
            : fmt::format("free once version {} is reported", plainText(one["version"]))));
  }
}

}  // namespace Kelp
