#pragma once

#include <fmt/format.h>

#include <iterator>
#include <string>
#include <string_view>

#include "common/Intent.h"
#include "kelp/EntryFields.h"

// Records of the change logs as text and JSON.

namespace Kelp {

// "write", "remove" or "removeAll".
template <class LogRecord>
[[nodiscard]] std::string_view opOf(const LogRecord& record) {
  return Common::name(record.isTableDeleted()   ? Common::IntentOp::removeAll
                      : record.isEntryDeleted() ? Common::IntentOp::remove
                                                : Common::IntentOp::write);
}

// {"version":5,"unit":0,"op":"write","key":{...},...} without its closing brace.
template <KelpEmServer::TableSpec T>
void beginLogRecordJson(std::string& out, const typename T::EntryLogQuilt::Record& record) {
  fmt::format_to(std::back_inserter(out), R"({{"version":{},"unit":{},"op":"{}")", record.version,
                 record.unitId, opOf(record));
  if (!record.isTableDeleted()) {
    appendLogEntryJson<T>(out, record.logEntry);
  }
}
template <KelpEmServer::TableSpec T>
void appendLogRecordJson(std::string& out, const typename T::EntryLogQuilt::Record& record) {
  beginLogRecordJson<T>(out, record);
  out += '}';
}

// The same as a line for people.
template <KelpEmServer::TableSpec T>
void appendLogRecordText(std::string& out, const typename T::EntryLogQuilt::Record& record) {
  fmt::format_to(std::back_inserter(out), "{:>10}  unit {:<5}  {:<9}", record.version,
                 record.unitId, opOf(record));
  if (record.isTableDeleted()) {
    out += "  all entries";
    return;
  }
  for (const Part part : {Part::key, Part::payload, Part::resolved}) {
    const std::string pairs = pairsOf<T>(record.logEntry, part);
    out += pairs.empty() ? "" : "  ";
    out += pairs;
  }
}

}  // namespace Kelp
