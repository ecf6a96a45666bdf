#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <optional>

#include "BriskTrace/Reader.h"
#include "kelp/LiveCommands.h"
#include "kelp/PlainJson.h"
#include "kelp/Waiter.h"

namespace Kelp {
namespace {

std::string nowText() {
  return BriskTrace::timeText(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                  std::chrono::system_clock::now().time_since_epoch())
                                  .count());
}

void printChange(Live& live, const Json& change) {
  const std::string time = nowText();
  if (live.json()) {
    Json line = {{"time", time}};
    line.update(change);
    line.erase("subscription");
    live.printJson(line);
    return;
  }
  std::string path = plainText(change.value("path", Json("")));
  if (change.contains("key")) {
    path += fmt::format("[{}]", keyText(change["key"]));
  }
  live.out().line(fmt::format(
      "{} {} {}", time, path,
      change.contains("error") ? plainText(change["error"]) : plainText(change["value"])));
}

}  // namespace

void watchPlace(Live& live) {
  const Waiter waiter;
  live.out().stopFdIs(waiter.fd());
  try {
    (void)live.agent().call("subscribe", {{"path", live.options().path}});
    fmt::print(stderr, "kelp: watching {}\n", live.options().path);
    std::fflush(stderr);
    Waiter::Woken woken = Waiter::Woken::readable;
    while (woken == Waiter::Woken::readable) {
      while (const auto told = live.agent().notification()) {
        if (told->method == "ended") {
          live.out().flush();
          throw CommandError(kFailed, fmt::format("{}: {}", live.options().path,
                                                  plainText(told->params["error"])));
        }
        printChange(live, told->params);
      }
      live.out().flush();
      woken = waiter.sleep(std::chrono::milliseconds(-1), live.agent().fd());
    }
  } catch (const OutputGone&) {
    live.out().text().clear();
  } catch (const Stopped&) {
    live.out().text().clear();
  }
  live.out().stopFdIs(-1);
}

}  // namespace Kelp
