#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "Lumen/Exception.h"
#include "common/Intent.h"
#include "kelp/Commands.h"
#include "kelp/LogRecords.h"
#include "kelp/TableReader.h"

namespace Kelp {
namespace {

// The names of T's key, in the order in which bare values may stand.
template <KelpEmServer::TableSpec T>
std::vector<std::string_view> keyNames() {
  using Key = typename T::Entry::Key;
  std::vector<std::string_view> names;
  if constexpr (std::is_integral_v<Key>) {
    Brio::forEachField<typename T::Entry::LogEntry>([&](const auto& field) {
      if (Common::isKeyField(field)) {
        names.push_back(field.name);
      }
    });
  } else {
    names = Common::fieldNames<Key>();
  }
  return names;
}

// {"port":3,"vlan":100} or port=3,vlan=100. Throws InputError.
template <KelpEmServer::TableSpec T>
typename T::Entry::Key readKeyArgument(const std::string& text) {
  std::string example;
  Common::appendKey<T>(example, typename T::Entry::Key{});
  std::string pairs = "FIELD=VALUE,... with " + Common::listText(keyNames<T>());
  const std::string remedy = fmt::format("write an object such as {}, or {}", example, pairs);
  const Common::Place place{"key"};
  Common::Json json = Common::Json::object();
  if (!text.empty() && text.front() == '{') {
    if (!Common::Json::accept(text)) {
      throw Common::InputError(fmt::format("the key {} is not JSON: {}", text, remedy));
    }
    json = Common::parseLine(text);
  } else {
    for (std::size_t at = 0; at <= text.size();) {
      const std::size_t end = std::min(text.find(',', at), text.size());
      const std::string pair = text.substr(at, end - at);
      at = end + 1;
      const std::size_t equals = pair.find('=');
      std::string name = pair.substr(0, std::min(equals, pair.size()));
      if (name.rfind("key.", 0) == 0) {
        name.erase(0, 4);
      }
      std::string value = equals == std::string::npos ? "" : pair.substr(equals + 1);
      if (equals == std::string::npos && keyNames<T>().size() == 1) {
        value = std::exchange(name, keyNames<T>().front());
      }
      if (name.empty() || value.empty()) {
        throw Common::InputError(fmt::format("\"{}\" is no part of a key: {}", pair, remedy));
      }
      if (json.contains(name)) {
        throw Common::InputError(
            fmt::format("\"{}\" stands twice in the key: write it once", name));
      }
      const bool number = value.find_first_not_of("0123456789") == std::string::npos;
      json[name] =
          number && Common::Json::accept(value) ? Common::Json::parse(value) : Common::Json(value);
    }
  }
  typename T::Entry::Key key{};
  Common::readKey<T>(json, key, place);
  return key;
}

template <KelpEmServer::TableSpec T>
class OneEntry {
 public:
  using Record = typename T::ConfigQuilt::Record;
  using LogRecord = typename T::EntryLogQuilt::Record;
  using Key = typename T::Entry::Key;

  explicit OneEntry(Session& session)
      : session_(session), key_(readKeyArgument<T>(session.options().key)) {}

  void show() {
    const auto units = unitsAsked<T>(session_);
    log_ = logIfThere<T>(session_);
    Reports reports(session_, T::tableId, controlOf(log_));
    std::string& out = session_.out().text();
    if (session_.json()) {
      fmt::format_to(std::back_inserter(out), R"({{"table":"{}","key":)", T::name.view());
      Common::appendKey<T>(out, key_);
      out += R"(,"units":[)";
    }
    std::uint64_t found = 0;
    for (const Asic::UnitId unit : units) {
      if (const auto record = find(unit)) {
        const auto log = logRecord(unit, *record);
        reports.look();
        if (session_.json()) {
          out += found == 0 ? "" : ",";
          appendJson(out, unit, *record, log, reports);
        } else {
          appendText(out, unit, *record, log, reports);
        }
        ++found;
      }
    }
    if (session_.json()) {
      session_.out().line("]}");
    } else {
      session_.out().flush();
    }
    if (found == 0) {
      std::string key;
      Common::appendKey<T>(key, key_);
      const auto asked = session_.options().unit;
      session_.failed(
          fmt::format("{} has no entry {}{}", T::name.view(), key,
                      asked ? fmt::format(" on unit {}", *asked) : std::string(" on any unit")));
    }
  }

 private:
  std::optional<Record> find(Asic::UnitId unit) {
    try {
      const auto config = Common::openConfig<T>(session_.memory(), unit);
      try {
        bool found = false;
        const Record& record = std::as_const(*config).swTableEntries().find(key_, found);
        return found ? std::optional<Record>(record) : std::nullopt;
      } catch (const Lumen::CorruptionDetectedException&) {
        // It may be whole and lie behind the damage.
        std::optional<Record> behind;
        forEachWhole<Record>(session_, *config, [&](const Record& record) {
          if (record.quiltKey() == key_) {
            behind = record;
          }
        });
        return behind;
      }
    } catch (const BrioSharedMem::StoreError& error) {
      session_.notOpened(error);
      return std::nullopt;
    }
  }

  // The record of the change that made the entry what it is, if the log still has it.
  std::optional<LogRecord> logRecord(Asic::UnitId unit, const Record& record) {
    if (!log_) {
      return std::nullopt;
    }
    try {
      bool found = false;
      const LogRecord& change = std::as_const(*log_).entryLogConfig().find(record.version, found);
      // A version of an earlier life of the log may be another entry's by now.
      if (found && change.unitId == unit &&
          (change.isTableDeleted() || change.logEntry.key == key_)) {
        return change;
      }
    } catch (const Lumen::CorruptionDetectedException& corruption) {
      session_.damage(corruption.msg());
    }
    return std::nullopt;
  }

  void appendJson(std::string& out, Asic::UnitId unit, const Record& record,
                  const std::optional<LogRecord>& log, Reports& reports) {
    fmt::format_to(std::back_inserter(out), R"({{"unit":{},"state":"{}","version":{})", unit,
                   record.isDeleted != 0 ? "beingDeleted" : "live", record.version);
    appendEntryJson<T>(out, record);
    out += R"(,"log":)";
    if (log) {
      appendLogRecordJson<T>(out, *log);
    } else {
      out += "null";
    }
    const auto version = reports.version();
    out += R"(,"chip":)";
    out += version ? fmt::format(R"({{"reported":{},"covered":{}}})", *version,
                                 *version >= record.version.value)
                   : "null";
    out += '}';
  }

  void appendText(std::string& out, Asic::UnitId unit, const Record& record,
                  const std::optional<LogRecord>& log, Reports& reports) {
    const auto& logEntry = record.entry.logEntry;
    const auto line = [&](const char* what, const std::string& text) {
      if (!text.empty()) {
        fmt::format_to(std::back_inserter(out), "  {:<10} {}\n", what, text);
      }
    };
    fmt::format_to(std::back_inserter(out), "{} unit {}, {}\n", T::name.view(), unit,
                   pairsOf<T>(logEntry, Part::key));
    line("state", record.isDeleted != 0 ? "being deleted" : "live");
    line("version", fmt::format("{}", record.version));
    line("payload", pairsOf<T>(logEntry, Part::payload));
    line("resources", resourcePairsOf<T>(record));
    line("resolved", pairsOf<T>(logEntry, Part::resolved));
    line("log", log ? fmt::format("{} of version {}", opOf(*log), log->version)
                    : "the record of this version is not in the log any more");
    const auto version = reports.version();
    line("chip", !version ? "the hardware side has not reported this log"
                 : *version >= record.version.value
                     ? fmt::format("has it: reported up to version {}", *version)
                     : fmt::format("has not reported it yet: only up to version {}", *version));
  }

  Session& session_;
  Key key_;
  Lumen::Ptr<typename T::EntryLogQuilt> log_;
};

}  // namespace

void showEntry(Session& session) {
  Common::withTable(tableOf(session.options().table),
                    [&](auto tag) { OneEntry<typename decltype(tag)::Table>(session).show(); });
}

}  // namespace Kelp
