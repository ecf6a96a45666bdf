#include "kelp/Prometheus.h"

#include <fmt/format.h>

#include <array>
#include <iterator>
#include <string_view>
#include <utility>
#include <vector>

namespace Kelp {
namespace {

// One metric: the member that it comes from, its name behind "kelp_", and what it is. A name that
// ends in _total is a counter's, any other a gauge's.
struct Metric {
  const char* member;
  const char* name;
  const char* help;
};

constexpr std::array kOfAgent{
    Metric{"uptimeSeconds", "agent_uptime_seconds", "How long the agent has run."},
    Metric{"intentsAccepted", "intents_accepted_total", "Intents that were accepted."},
    Metric{"intentsSucceeded", "intents_succeeded_total", "Intents that ended as success."},
    Metric{"intentsFailed", "intents_failed_total", "Intents that ended as failed."},
    Metric{"intentsSucceededAgain", "intents_succeeded_again_total",
           "Intents that had failed and came through at a second try."},
    Metric{"intentsInFlight", "intents_in_flight", "Intents that have no outcome yet."},
    Metric{"intentsInFlightLimit", "intents_in_flight_limit",
           "Intents in flight at which the agent reads no further."},
    Metric{"linesSkipped", "lines_skipped_total", "Lines of files that were wrong."},
    Metric{"writesToTryAgain", "writes_to_try_again",
           "Writes that failed for want of a resource and wait for it."},
    Metric{"writesToTryAgainLimit", "writes_to_try_again_limit",
           "Such writes at which the oldest are given up."},
    Metric{"resourceEventsApplied", "resource_events_applied_total",
           "Events of resources that were carried out."},
    Metric{"resourceEventsFailed", "resource_events_failed_total",
           "Events of resources that failed."},
    Metric{"peers", "peers", "Peers of the socket of intents."},
    Metric{"inspectionPeers", "inspection_peers", "Peers of the socket of inspection."},
    Metric{"passes", "resolver_passes_total", "Passes of the resolver."},
};
constexpr std::array kOfTables{
    Metric{"entries", "table_entries", "Committed entries."},
    Metric{"writesInFlight", "table_writes_in_flight", "Keys with a write that is not committed."},
    Metric{"removesInFlight", "table_removes_in_flight",
           "Keys with a remove that is not committed."},
    Metric{"removeAllsInFlight", "table_remove_alls_in_flight",
           "Remove-alls that are not committed, and those that have failed."},
    Metric{"queued", "table_queued", "Operations that are not committed."},
    Metric{"inLog", "table_in_log",
           "Operations that are committed and that the hardware side has not reported."},
    Metric{"oldestWaitingSeconds", "table_oldest_waiting_seconds",
           "How long the oldest intent without an outcome has waited."},
    Metric{"failed", "table_intents_failed_total", "Intents that ended as failed."},
    Metric{"writes", "table_writes_total", "Writes that were accepted."},
    Metric{"removes", "table_removes_total", "Removes of one key that were accepted."},
    Metric{"commits", "table_commits_total", "Operations that went through a commit."},
    Metric{"suppressedWrites", "table_suppressed_writes_total",
           "Writes that the log dropped as identical."},
    Metric{"differingWrites", "table_differing_writes_total",
           "Writes after a restart that were found to differ."},
    Metric{"resolveFailures", "table_resolve_failures_total",
           "Writes whose resource had failed at the commit."},
    Metric{"updates", "table_updates_total", "Entries rewritten for a changed resource."},
    Metric{"updatesWithFailedResource", "table_updates_with_failed_resource_total",
           "Rewrites for a changed resource that met a failed one."},
    Metric{"tableClears", "table_clears_total", "Table deletes that reached the log."},
    Metric{"lastCommit", "table_last_commit_timestamp_seconds", "When the last commit was."},
};
constexpr std::array kOfLogs{
    Metric{"issued", "log_issued_version", "The last version that was issued."},
    Metric{"published", "log_published_version", "The last version that was published."},
    Metric{"reported", "log_reported_version",
           "The version up to which the hardware side has reported."},
    Metric{"behind", "log_behind_versions",
           "Published versions that the hardware side has not reported."},
    Metric{"records", "log_records", "Records that the log holds."},
    Metric{"capacity", "log_capacity_records", "Records that the log has room for."},
};
constexpr std::array kOfResources{
    Metric{"known", "resources_known", "Resources that somebody has asked for."},
    Metric{"allocated", "resource_allocations", "Allocations that are taken."},
    Metric{"free", "resource_allocations_free", "Allocations that can be given out."},
    Metric{"failed", "resources_failed", "Resources that writes wait for in vain."},
    Metric{"releasesWaiting", "resource_releases_waiting",
           "Releases that the hardware side has not reported."},
};
constexpr std::array kOfMemory{
    Metric{"objects", "memory_objects", "Live objects of a class."},
    Metric{"bytes", "memory_bytes", "Their bytes."},
    Metric{"allocations", "memory_allocations_total", "Objects made since the start."},
};

void appendLabel(std::string& out, std::string_view name, const std::string& value) {
  out += out.back() == '{' ? "" : ",";
  out += name;
  out += "=\"";
  for (const char c : value) {
    switch (c) {
      case '\\':
      case '"':
        out += '\\';
        out += c;
        break;
      case '\n':
        out += "\\n";
        break;
      default:
        out += c;
    }
  }
  out += '"';
}

void appendHead(std::string& out, std::string_view name, std::string_view help) {
  fmt::format_to(std::back_inserter(out), "# HELP kelp_{} {}\n# TYPE kelp_{} {}\n", name, help,
                 name, name.ends_with("_total") ? "counter" : "gauge");
}

// The metrics of `rows`, each with the labels that these members of its row give.
template <class Metrics>
void appendRows(std::string& out, const Metrics& metrics, const Json& rows,
                const std::vector<const char*>& labels) {
  for (const Metric& metric : metrics) {
    bool first = true;
    for (const Json& row : rows) {
      if (!row.contains(metric.member) || !row[metric.member].is_number()) {
        continue;
      }
      if (std::exchange(first, false)) {
        appendHead(out, metric.name, metric.help);
      }
      fmt::format_to(std::back_inserter(out), "kelp_{}", metric.name);
      if (!labels.empty()) {
        out += '{';
        for (const char* const label : labels) {
          const Json& value = row[label];
          appendLabel(out, label, value.is_string() ? value.get<std::string>() : value.dump());
        }
        out += '}';
      }
      fmt::format_to(std::back_inserter(out), " {}\n", row[metric.member].dump());
    }
  }
}

}  // namespace

void appendMetrics(std::string& out, const Json& stats) {
  const Json& agent = stats["agent"];
  appendHead(out, "agent_info", "Which agent it is; always 1.");
  out += "kelp_agent_info{";
  appendLabel(out, "name", agent.value("name", ""));
  appendLabel(out, "root", agent.value("root", ""));
  appendLabel(out, "pid", agent["pid"].dump());
  out += "} 1\n";
  appendRows(out, kOfAgent, Json::array({agent}), {});
  appendRows(out, kOfTables, stats["tables"], {"table", "unit"});
  appendRows(out, kOfLogs, stats["logs"], {"table"});
  appendRows(out, kOfResources, stats["resources"], {"resource"});
  appendHead(out, "memory_slab_bytes", "Bytes that the slab has taken from the system.");
  fmt::format_to(std::back_inserter(out), "kelp_memory_slab_bytes {}\n",
                 stats["memory"]["slabBytes"].dump());
  appendRows(out, kOfMemory, stats["memory"]["classes"], {"class"});
}

}  // namespace Kelp
