#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <optional>
#include <vector>

#include "kelp/LiveCommands.h"
#include "kelp/PlainJson.h"
#include "kelp/Terminal.h"
#include "kelp/TextTable.h"
#include "kelp/Waiter.h"

namespace Kelp {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kBar = 20;

struct Look {
  Json stats;
  Clock::time_point time;
};

// Sums of a member over the units of a table.
double sumOf(const Json& stats, const std::string& table, const char* member) {
  double sum = 0;
  for (const Json& one : stats["tables"]) {
    sum += one["table"] == table ? one[member].get<double>() : 0;
  }
  return sum;
}

std::string rateText(double now, double before, double seconds) {
  return seconds <= 0 || now < before ? "0" : fmt::format("{:.0f}", (now - before) / seconds);
}

std::string barText(double part, double whole) {
  const double share = whole <= 0 ? 0 : std::min(part / whole, 1.0);
  const auto full = static_cast<std::size_t>(std::ceil(share * kBar));
  return fmt::format("[{}{}] {:5.1f} %", std::string(full, '#'), std::string(kBar - full, ' '),
                     share * 100);
}

// Both looks are at the same agent.
std::vector<std::string> screenOf(const Look& before, const Look& now) {
  const double seconds = std::chrono::duration<double>(now.time - before.time).count();
  const Json& agent = now.stats["agent"];
  const auto rate = [&](const char* member) {
    return rateText(agent[member].get<double>(), before.stats["agent"][member].get<double>(),
                    seconds);
  };
  std::vector<std::string> lines;
  lines.push_back(fmt::format("kelp-agent {} (process {}), up {}", plainText(agent["name"]),
                              plainText(agent["pid"]), durationText(agent["uptimeSeconds"])));
  lines.push_back(
      fmt::format("intents {}/s, {} in flight of {}; {} failed, {} to try again; passes {}/s",
                  rate("intentsAccepted"), plainText(agent["intentsInFlight"]),
                  plainText(agent["intentsInFlightLimit"]), plainText(agent["intentsFailed"]),
                  plainText(agent["writesToTryAgain"]), rate("passes")));
  lines.emplace_back();
  std::vector<std::vector<std::string>> cells{{"table", "entries", "writes/s", "removes/s",
                                               "commits/s", "queued", "in log", "oldest", "behind",
                                               "log"}};
  for (const Json& log : now.stats["logs"]) {
    const std::string table = log["table"];
    const auto sum = [&](const char* member) { return sumOf(now.stats, table, member); };
    const auto tableRate = [&](const char* member) {
      return rateText(sum(member), sumOf(before.stats, table, member), seconds);
    };
    double oldest = 0;
    for (const Json& one : now.stats["tables"]) {
      oldest =
          std::max(oldest, one["table"] == table ? one["oldestWaitingSeconds"].get<double>() : 0);
    }
    cells.push_back({table, fmt::format("{:.0f}", sum("entries")), tableRate("writes"),
                     tableRate("removes"), tableRate("commits"),
                     fmt::format("{:.0f}", sum("queued")), fmt::format("{:.0f}", sum("inLog")),
                     oldest == 0 ? "" : durationText(oldest), plainText(log["behind"]),
                     barText(log["records"], log["capacity"])});
  }
  std::vector<std::size_t> widths(cells.front().size());
  for (const auto& row : cells) {
    for (std::size_t c = 0; c < row.size(); ++c) {
      widths[c] = std::max(widths[c], row[c].size());
    }
  }
  for (const auto& row : cells) {
    std::string line;
    for (std::size_t c = 0; c < row.size(); ++c) {
      line += c == 0 ? "" : "  ";
      appendCell(line, row[c], widths[c], c != 0 && c + 1 != row.size());
    }
    line.erase(line.find_last_not_of(' ') + 1);
    lines.push_back(line);
  }
  lines.emplace_back();
  for (const Json& one : now.stats["resources"]) {
    const double taken = one["allocated"];
    lines.push_back(fmt::format("{:<16} {} {} of {:.0f} allocated, {} failed, {} to be released",
                                plainText(one["resource"]),
                                barText(taken, taken + one["free"].get<double>()),
                                plainText(one["allocated"]), taken + one["free"].get<double>(),
                                plainText(one["failed"]), plainText(one["releasesWaiting"])));
  }
  return lines;
}

Look look(Live& live) {
  Json stats = live.agent().call("stats");
  return {std::move(stats), Clock::now()};
}

}  // namespace

void showTop(Live& live) {
  const Waiter waiter;
  const auto interval = std::chrono::milliseconds(
      static_cast<std::int64_t>(std::max(live.options().interval, 0.01) * 1000));
  const bool once = live.options().once || live.json() || !Terminal::isThere();
  Look before = look(live);
  std::optional<Terminal> terminal;
  if (!once) {
    terminal.emplace();
    terminal->show(screenOf(before, before));
  }
  while (true) {
    const auto woken = waiter.sleep(interval, terminal ? terminal->keys() : -1);
    if (woken == Waiter::Woken::stopped || woken == Waiter::Woken::readerGone) {
      return;
    }
    if (woken == Waiter::Woken::readable) {
      const char key = terminal->key();
      if (key == 'q' || key == 'Q') {
        return;
      }
    }
    Look now = look(live);
    if (once) {
      if (live.json()) {
        live.printJson({{"seconds", std::chrono::duration<double>(now.time - before.time).count()},
                        {"before", before.stats},
                        {"now", now.stats}});
        return;
      }
      for (const std::string& line : screenOf(before, now)) {
        live.out().line(line);
      }
      return;
    }
    terminal->show(screenOf(before, now));
    before = std::move(now);
  }
}

}  // namespace Kelp
