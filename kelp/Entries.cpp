#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <iterator>

#include "kelp/Commands.h"
#include "kelp/TableReader.h"
#include "kelp/TextTable.h"

namespace Kelp {
namespace {

// "5" is a number, `{...}` an object, and anything else a text.
Common::Json valueOf(const std::string& text) {
  const bool json = !text.empty() && (text.front() == '{' || text.front() == '"' ||
                                      text.find_first_not_of("0123456789") == std::string::npos);
  return json && Common::Json::accept(text) ? Common::Json::parse(text) : Common::Json(text);
}

bool endsWithPath(std::string_view path, std::string_view end) {
  return path == end || (path.size() > end.size() && path[path.size() - end.size() - 1] == '.' &&
                         path.substr(path.size() - end.size()) == end);
}

// The field that somebody means by a path or its last parts. Throws CommandError.
template <class Record>
const FieldOf<Record>& fieldMeant(const std::vector<FieldOf<Record>>& fields,
                                  const std::string& name, std::string_view table) {
  std::vector<const FieldOf<Record>*> meant;
  std::vector<std::string_view> paths;
  std::vector<std::string_view> topPaths;
  for (const auto& field : fields) {
    if (field.path == name) {
      return field;
    }
    if (endsWithPath(field.path, name)) {
      meant.push_back(&field);
    }
    paths.emplace_back(field.path);
    if (std::count(field.path.begin(), field.path.end(), '.') < 2) {
      topPaths.emplace_back(field.path);
    }
  }
  if (meant.size() == 1) {
    return *meant.front();
  }
  if (meant.empty()) {
    auto near = nearNames(name, paths);
    for (const std::string_view path : paths) {
      const std::string_view last = path.substr(path.rfind('.') + 1);
      if (near.size() < 3 && !nearNames(name, {last}).empty() &&
          std::find(near.begin(), near.end(), path) == near.end()) {
        near.push_back(path);
      }
    }
    throw CommandError(
        kUsage, Common::InputError(
                    fmt::format("{} has no field \"{}\": {}", table, name,
                                near.empty() ? "write " + Common::choiceText(topPaths)
                                             : "did you mean " + Common::choiceText(near) + "?"))
                    .what());
  }
  std::vector<std::string_view> choices;
  for (const auto* field : meant) {
    if (choices.size() < 4) {
      choices.emplace_back(field->path);
    }
  }
  throw CommandError(kUsage, fmt::format("{} has several fields \"{}\": write {}{}", table, name,
                                         Common::choiceText(choices),
                                         meant.size() > choices.size() ? " and so on" : ""));
}

template <KelpEmServer::TableSpec T>
class Entries {
 public:
  using Record = typename T::ConfigQuilt::Record;

  explicit Entries(Session& session) : session_(session) {}

  void show() {
    readConditions();
    const auto units = unitsAsked<T>(session_);
    log_ = logIfThere<T>(session_);
    Reports reports(session_, T::tableId, controlOf(log_));
    begin();
    for (const Asic::UnitId unit : units) {
      try {
        const auto config = Common::openConfig<T>(session_.memory(), unit);
        forEachWhole<Record>(session_, *config, [&](const Record& record) {
          if (record.isDeleted != 0) {
            ++deleted_;
          } else if (holds(record)) {
            ++shown_;
            show(unit, record, reports);
          }
        });
      } catch (const BrioSharedMem::StoreError& error) {
        session_.notOpened(error);
      }
    }
    end();
  }

 private:
  struct Column {
    std::string title;
    std::size_t width;
    bool right;
    std::function<void(std::string&, const Record&)> append;
  };

  void readConditions() {
    if (session_.options().where.empty()) {
      return;
    }
    const auto fields = fieldsOf<T>();
    for (const std::string& condition : session_.options().where) {
      const std::size_t equals = condition.find('=');
      if (equals == std::string::npos || equals == 0) {
        throw CommandError(
            kUsage, Common::InputError("--where " + condition +
                                       " is no condition: write FIELD=VALUE, such as version=5")
                        .what());
      }
      const auto& field = fieldMeant(fields, condition.substr(0, equals), T::name.view());
      conditions_.push_back(field.equals(valueOf(condition.substr(equals + 1))));
    }
  }
  [[nodiscard]] bool holds(const Record& record) const {
    return std::all_of(conditions_.begin(), conditions_.end(),
                       [&](const auto& condition) { return condition(record); });
  }

  void begin() {
    Output& out = session_.out();
    if (session_.json()) {
      out.text() += R"({"store":)";
      Common::appendString(out.text(), session_.folder());
      out.line(fmt::format(R"(,"table":"{}","entries":[)", T::name.view()));
      return;
    }
    makeColumns();
    std::string line = " unit";
    for (const Column& column : columns_) {
      line += "  ";
      appendCell(line, column.title, column.width, column.right);
    }
    line += "  chip";
    line += Common::kFieldCount<typename T::Entry::ResourceKeys> == 0 ? "" : "      resources";
    out.line(line);
  }

  void makeColumns() {
    forEachPart<T>([&](const auto& field, Part part) {
      using LogEntry = typename T::Entry::LogEntry;
      using Member = std::remove_cvref_t<decltype(std::declval<LogEntry&>().*field.member)>;
      const auto get = [member = field.member](const Record& record) -> const Member& {
        return record.entry.logEntry.*member;
      };
      if constexpr (kIsLeaf<Member>) {
        addColumn<Member>(field, get);
      } else {
        static_cast<void>(part);
        Brio::forEachField<Member>([&](const auto& inner) {
          using Inner = std::remove_cvref_t<decltype(std::declval<Member&>().*inner.member)>;
          addColumn<Inner>(inner,
                           [get, member = inner.member](const Record& record) -> const Inner& {
                             return get(record).*member;
                           });
        });
      }
    });
    columns_.push_back({"version", 10, true, [](std::string& out, const Record& record) {
                          fmt::format_to(std::back_inserter(out), "{}", record.version);
                        }});
  }
  template <class Member, class FieldT, class Get>
  void addColumn(const FieldT& field, Get get) {
    static_assert(kIsLeaf<Member>, "keys and payloads are flat");
    const std::size_t digits = std::to_string(field.most).size();
    columns_.push_back(
        {std::string(field.name), std::max(field.name.size(), digits), std::is_integral_v<Member>,
         [get](std::string& out, const Record& record) { appendPlain(out, get(record)); }});
  }

  void show(Asic::UnitId unit, const Record& record, Reports& reports) {
    std::string& out = session_.out().text();
    const bool covered = reports.covers(record.version.value);
    if (session_.json()) {
      fmt::format_to(std::back_inserter(out), R"({}{{"unit":{})", shown_ == 1 ? "" : ",", unit);
      appendEntryJson<T>(out, record);
      fmt::format_to(std::back_inserter(out), R"(,"version":{},"reported":{}}})", record.version,
                     covered);
      session_.out().lineEnd();
      return;
    }
    fmt::format_to(std::back_inserter(out), "{:>5}", unit);
    for (const Column& column : columns_) {
      cell_.clear();
      column.append(cell_, record);
      out += "  ";
      appendCell(out, cell_, column.width, column.right);
    }
    out += covered ? "  reported" : "  pending";
    const std::string resources = resourcePairsOf<T>(record);
    if (!resources.empty()) {
      out += covered ? "  " : "   ";
      out += resources;
    }
    session_.out().lineEnd();
  }

  void end() {
    if (session_.json()) {
      session_.out().line(fmt::format(R"(],"shown":{},"beingDeleted":{}}})", shown_, deleted_));
    } else {
      session_.out().line(fmt::format(
          "{} {}{}", shown_, shown_ == 1 ? "entry" : "entries",
          deleted_ == 0 ? std::string() : fmt::format("; {} more being deleted", deleted_)));
    }
  }

  Session& session_;
  Lumen::Ptr<typename T::EntryLogQuilt> log_;
  std::vector<std::function<bool(const Record&)>> conditions_;
  std::vector<Column> columns_;
  std::string cell_;
  std::uint64_t shown_ = 0;
  std::uint64_t deleted_ = 0;
};

}  // namespace

void showEntries(Session& session) {
  Common::withTable(tableOf(session.options().table),
                    [&](auto tag) { Entries<typename decltype(tag)::Table>(session).show(); });
}

}  // namespace Kelp
