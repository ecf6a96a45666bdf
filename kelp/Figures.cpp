#include <fmt/format.h>

#include <iterator>
#include <utility>

#include "BrioSharedMem/StoreError.h"
#include "common/Json.h"
#include "common/StoreReader.h"
#include "common/Tables.h"
#include "kelp/Commands.h"
#include "kelp/TextTable.h"

namespace Kelp {
namespace {

// What the header of a table's log says, and the hardware side of it.
struct LogFigures {
  bool there = false;
  std::uint64_t issued = 0;
  std::uint64_t published = 0;
  std::uint64_t held = 0;
  std::uint64_t capacity = 0;
  std::optional<std::uint64_t> reported;

  [[nodiscard]] std::uint64_t pending() const noexcept { return published - reported.value_or(0); }
};

template <KelpEmServer::TableSpec T>
LogFigures figuresOf(Session& session) {
  LogFigures figures;
  try {
    const auto log = Common::openLog<T>(session.memory());
    const auto control = log->collectionControl();
    Reports reports(session, T::tableId, control);
    // What is read later is never behind what is read earlier.
    figures.reported = reports.version();
    figures.published = control->published();
    figures.issued = control->scratchpad();
    figures.held = log->mapBase().size();
    figures.capacity = log->mapBase().capacity();
    figures.there = true;
  } catch (const BrioSharedMem::AbsentError&) {
    // An agent makes it.
  } catch (const BrioSharedMem::StoreError& error) {
    session.notOpened(error);
  }
  return figures;
}

struct UnitFigures {
  Asic::UnitId unit;
  std::uint64_t entries = 0;
  std::uint64_t deleted = 0;
  std::uint64_t capacity = 0;
  bool whole = true;
};

template <KelpEmServer::TableSpec T>
std::vector<UnitFigures> unitsOf(Session& session) {
  using Record = typename T::ConfigQuilt::Record;
  std::vector<UnitFigures> units;
  for (const Asic::UnitId unit : Common::unitsOf<T>(session.memory())) {
    try {
      const auto config = Common::openConfig<T>(session.memory(), unit);
      const Quilt::StoreFile& file = *config->mapBase().file();
      UnitFigures figures;
      figures.unit = unit;
      figures.capacity = config->mapBase().capacity();
      const auto result = Quilt::survey<Record>(
          file,
          [&](const Record& record) { ++(record.isDeleted ? figures.deleted : figures.entries); },
          [&](const Quilt::Damage& damage) { session.damage(file, damage); });
      figures.whole = result.damages == 0;
      units.push_back(figures);
    } catch (const BrioSharedMem::StoreError& error) {
      session.notOpened(error);
    }
  }
  return units;
}

std::string orNull(const std::optional<std::uint64_t>& number) {
  return number ? std::to_string(*number) : "null";
}
std::string orNever(const std::optional<std::uint64_t>& number) {
  return number ? std::to_string(*number) : "never";
}

void beginDocument(Session& session) {
  session.out().text() += R"({"store":)";
  Common::appendString(session.out().text(), session.folder());
  session.out().text() += R"(,"tables":[)";
}

}  // namespace

void showTables(Session& session) {
  TextTable text({"table", "id", "unit", "entries", "being deleted", "room (entries)"});
  std::string& json = session.out().text();
  if (session.json()) {
    beginDocument(session);
  }
  bool first = true;
  KelpEmServer::AllTables::forEach([&](auto tag) {
    using T = typename decltype(tag)::Table;
    const auto units = unitsOf<T>(session);
    const std::string id = fmt::format("{}", Asic::SwTableId(T::tableId));
    if (session.json()) {
      fmt::format_to(std::back_inserter(json), R"({}{{"table":"{}","tableId":"{}","units":[)",
                     first ? "" : ",", T::name.view(), id);
      bool firstUnit = true;
      for (const UnitFigures& unit : units) {
        fmt::format_to(std::back_inserter(json),
                       R"({}{{"unit":{},"entries":{},"beingDeleted":{},"capacity":{},"whole":{}}})",
                       firstUnit ? "" : ",", unit.unit, unit.entries, unit.deleted, unit.capacity,
                       unit.whole);
        firstUnit = false;
      }
      json += "]}";
    } else if (units.empty()) {
      text.row({std::string(T::name.view()), id, "none", "", "", ""});
    }
    for (const UnitFigures& unit : units) {
      text.row({std::string(T::name.view()), id, fmt::format("{}", unit.unit),
                std::to_string(unit.entries), std::to_string(unit.deleted),
                std::to_string(unit.capacity)});
    }
    first = false;
  });
  if (session.json()) {
    session.out().line("]}");
  } else {
    text.print(session.out());
  }
}

void showPending(Session& session) {
  TextTable text({"table", "issued (version)", "published (version)", "reported (version)",
                  "log records held", "changes pending"});
  std::string& json = session.out().text();
  if (session.json()) {
    beginDocument(session);
  }
  bool first = true;
  KelpEmServer::AllTables::forEach([&](auto tag) {
    using T = typename decltype(tag)::Table;
    const LogFigures log = figuresOf<T>(session);
    if (session.json()) {
      fmt::format_to(std::back_inserter(json), R"({}{{"table":"{}","log":)", first ? "" : ",",
                     T::name.view());
      if (log.there) {
        fmt::format_to(std::back_inserter(json),
                       R"({{"issued":{},"published":{},"reported":{},"held":{},"capacity":{},)"
                       R"("pending":{}}}}})",
                       log.issued, log.published, orNull(log.reported), log.held, log.capacity,
                       log.pending());
      } else {
        json += "null}";
      }
    } else if (log.there) {
      text.row({std::string(T::name.view()), std::to_string(log.issued),
                std::to_string(log.published), orNever(log.reported), std::to_string(log.held),
                std::to_string(log.pending())});
    } else {
      text.row({std::string(T::name.view()), "no log", "", "", "", ""});
    }
    first = false;
  });
  if (session.json()) {
    session.out().line("]}");
  } else {
    text.print(session.out());
  }
}

}  // namespace Kelp
