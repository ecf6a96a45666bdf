#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>

#include "BrioSharedMem/EntityPath.h"
#include "BrioSharedMem/StoreError.h"
#include "KelpTunnelNiLib/ResourceTableSet.h"
#include "Lumen/Exception.h"
#include "common/Json.h"
#include "common/StoreReader.h"
#include "common/Tables.h"
#include "kelp/CollectionCheck.h"
#include "kelp/Commands.h"

namespace Kelp {
namespace {

// Goes over every collection, one at a time, and prints what it has found at once.
class Check {
 public:
  explicit Check(Session& session) : session_(session) {}

  void run() {
    begin();
    const auto found = session_.memory().findEntities({}, BrioSharedMem::BrioSharedMemType::quilt);
    paths_ = found->paths();
    std::set<Lumen::String> known;
    const auto add = [&](const Lumen::String& path, auto&& checkOne) {
      known.insert(path);
      if (paths_.count(path) != 0) {
        one(path, checkOne);
      }
    };
    add(Asic::Constants::groupStatusPath(Common::groupName()),
        [&](CollectionReport& report) { checkStatus(report); });
    KelpEmServer::AllTables::forEach([&](auto tag) {
      using T = typename decltype(tag)::Table;
      using Constants = KelpEmServer::KelpConstants<T>;
      add(Constants::tableEntryLogQuiltPath(),
          [&](CollectionReport& report) { checkLog<T>(report); });
      add(Asic::Constants::groupNeededPath(Common::groupName(), T::tableId),
          [&](CollectionReport& report) { checkNeeded<T>(report); });
      for (const Asic::UnitId unit : Common::unitsOf<T>(session_.memory())) {
        add(Constants::configQuiltPath(unit),
            [&](CollectionReport& report) { checkConfig<T>(unit, report); });
      }
    });
    KelpTunnelNiLib::forEachResourceKind([&](auto tag) {
      using Kind = typename decltype(tag)::type;
      add(Common::resourcePath<Kind>(PactResourceTable::kResources),
          [&](CollectionReport& report) { checkResources<Kind>(report); });
      add(Common::resourcePath<Kind>(PactResourceTable::kHolds),
          [&](CollectionReport& report) { checkHolds<Kind>(report); });
      add(Common::resourcePath<Kind>(PactResourceTable::kReleases),
          [&](CollectionReport& report) { checkReleases<Kind>(report); });
    });
    for (const Lumen::String& path : paths_) {
      if (known.count(path) == 0) {
        one(path, [&](CollectionReport& report) { checkUnknown(report); });
      }
    }
    tellMissing();
    end();
  }

 private:
  template <class CheckOne>
  void one(const Lumen::String& path, CheckOne&& checkOne) {
    CollectionReport report;
    report.path = path;
    report.file = session_.fileOf(path);
    try {
      checkOne(report);
    } catch (const BrioSharedMem::AbsentError&) {
      return;  // gone since the folder was looked through
    } catch (const BrioSharedMem::StoreError& error) {
      report.damage(error.what());
    }
    print(report);
  }

  // The header, every chain, and the count. `judge` sees each whole record.
  template <class Record, class Entity, class Judge, class Moves>
  void checkCollection(const Entity& entity, CollectionReport& report, Judge&& judge,
                       Moves&& moves) {
    const Quilt::QuiltMapBase& map = entity.mapBase();
    const Quilt::StoreFile& file = *map.file();
    report.looked = true;
    checkHeader(map, report);
    const auto result = Quilt::survey<Record>(
        file,
        [&](const Record& record) {
          if constexpr (Quilt::RecordTraits<Record>::kOrderedByKey) {
            checkBounds<Record>(entity, record, report);
          }
          judge(record);
        },
        [&](const Quilt::Damage& damage) {
          report.damage(damage.slot ? damage.cause
                                    : fmt::format("bucket {}: {}", damage.bucket, damage.cause),
                        damage.slot);
        });
    report.records = result.records;
    if (report.sound()) {
      checkCount(
          map,
          [&] {
            return Quilt::survey<Record>(
                       file, [](const Record&) {}, [](const Quilt::Damage&) {})
                .records;
          },
          moves, report);
    }
  }

  // A walk in the order of the keys begins and ends at the bounds: a record outside is lost to it.
  template <class Record, class Entity>
  static void checkBounds(const Entity& entity, const Record& record, CollectionReport& report) {
    const Quilt::Header& header = entity.mapBase().file()->header();
    const std::uint64_t key = record.quiltKey().value;
    const std::uint64_t low = header.lowKey.load(std::memory_order_acquire);
    const std::uint64_t high = header.highKey.load(std::memory_order_acquire);
    if (low <= key && key <= high) {
      return;
    }
    // A record that is just being removed leaves the bounds when it is out of its chain.
    bool there = false;
    try {
      static_cast<void>(entity.map().find(record.quiltKey(), there));
    } catch (const Lumen::CorruptionDetectedException&) {
      return;  // told of by the survey
    }
    if (there) {
      report.damage(
          fmt::format("the record of version {} lies outside the bounds {} to {} that "
                      "the header gives",
                      key, low, high));
    }
  }

  // What goes up with every operation on a table.
  using Control = Lumen::Ptr<BrioQuilt::CollectionControl>;
  [[nodiscard]] static std::uint64_t movesOf(const Control& log) {
    return log ? log->scratchpad() + log->announced() : 0;
  }
  // Null if the log can't be read, which its own check tells.
  template <KelpEmServer::TableSpec T>
  [[nodiscard]] Control logOf() const {
    try {
      return Common::openLog<T>(session_.memory())->collectionControl();
    } catch (const BrioSharedMem::StoreError&) {
      return nullptr;
    }
  }

  template <KelpEmServer::TableSpec T>
  void checkLog(CollectionReport& report) {
    using Record = typename T::EntryLogQuilt::Record;
    const auto log = Common::openLog<T>(session_.memory());
    const auto control = log->collectionControl();
    checkLogWords(*control, report);
    std::uint64_t lowest = std::numeric_limits<std::uint64_t>::max();
    checkCollection<Record>(
        *log, report,
        [&](const Record& record) {
          lowest = std::min(lowest, record.version.value);
          if (record.flags > Record::kTableDeleted) {
            report.damage(fmt::format("the record of version {} has flags {} that mean nothing",
                                      record.version, record.flags));
          }
          if (record.version.value > control->scratchpad() + 1) {
            report.damage(fmt::format("a record of version {}, and {} is the last that was issued",
                                      record.version, control->scratchpad()));
          }
        },
        [&] { return movesOf(control); });
    checkGaps<T>(*log, *control, lowest, report);
  }

  // Up to the published version, every version has its record until the hardware side has reported
  // it.
  template <KelpEmServer::TableSpec T>
  void checkGaps(const typename T::EntryLogQuilt& log, const BrioQuilt::CollectionControl& control,
                 std::uint64_t lowest, CollectionReport& report) {
    Reports reports(session_, T::tableId,
                    Lumen::Ptr<BrioQuilt::CollectionControl>(log.collectionControl()));
    const std::uint64_t published = control.published();
    // Without a report of this log, what lies below its lowest record may have been cleaned away
    // after one that is lost.
    const std::uint64_t from = reports.version() ? *reports.version() + 1 : lowest;
    if (from > published || published - from > log.mapBase().limit()) {
      return;
    }
    std::vector<std::uint64_t> missing;
    // Counted by the distance: a damaged word may say that the last version there can be is out.
    for (std::uint64_t distance = 0; distance <= published - from; ++distance) {
      const std::uint64_t version = from + distance;
      try {
        bool found = false;
        static_cast<void>(log.entryLogConfig().find(Asic::LogVersion{version}, found));
        if (!found) {
          missing.push_back(version);
        }
      } catch (const Lumen::CorruptionDetectedException&) {
        // Told of by the survey.
      }
    }
    reports.look();
    for (std::size_t i = 0; i < missing.size();) {
      std::size_t end = i + 1;
      while (end < missing.size() && missing[end] == missing[i] + (end - i)) {
        ++end;
      }
      const std::uint64_t last = missing[end - 1];
      if (last > reports.version().value_or(0)) {
        report.damage(
            fmt::format("there is no record of the versions {} to {}, which the hardware side has "
                        "not reported: what leads to them is lost",
                        missing[i], last));
      }
      i = end;
    }
  }

  template <KelpEmServer::TableSpec T>
  void checkConfig(Asic::UnitId unit, CollectionReport& report) {
    using Record = typename T::ConfigQuilt::Record;
    const auto config = Common::openConfig<T>(session_.memory(), unit);
    const auto log = logOf<T>();
    checkCollection<Record>(
        *config, report,
        [&](const Record& record) {
          if (record.isDeleted > 1) {
            report.damage(
                fmt::format("the record of version {} is deleted in a way that does not "
                            "exist: {}",
                            record.version, record.isDeleted));
          }
        },
        [&] { return movesOf(log); });
  }

  template <KelpEmServer::TableSpec T>
  void checkNeeded(CollectionReport& report) {
    using Record = Asic::NeededQuiltEntry;
    const auto log = logOf<T>();
    const auto needed = Common::openNeeded(session_.memory(), T::tableId);
    checkCollection<Record>(
        *needed, report,
        [&](const Record& record) {
          if (record.count > Record::kMost) {
            report.damage(fmt::format("the record of version {} counts {} dependencies",
                                      record.version, record.count));
          }
        },
        [&] { return movesOf(log); });
  }

  template <class Kind>
  void checkResources(CollectionReport& report) {
    using Record = PactResourceTable::ResourceRecord<typename Kind::Key>;
    const auto resources = Common::openResources<Kind>(session_.memory());
    std::map<std::uint32_t, typename Kind::Key> indexes;
    // Whether the resource of this key has this index now.
    const auto has = [&](const typename Kind::Key& key, std::uint32_t index) {
      bool found = false;
      try {
        const auto& now = resources->map().find(key, found);
        return found && now.index == index;
      } catch (const Lumen::CorruptionDetectedException&) {
        return false;  // told of by the survey
      }
    };
    checkCollection<Record>(
        *resources, report,
        [&](const Record& record) {
          if (record.index > Kind::kLimit) {
            report.damage(fmt::format("resource {} has index {}, and {} is the last", record.number,
                                      record.index, Kind::kLimit));
            return;
          }
          const auto [first, isNew] = indexes.emplace(record.index, record.key);
          // One may have gone and the other come while the collection was gone over.
          if (record.index != 0 && !isNew && has(first->second, record.index) &&
              has(record.key, record.index) && has(first->second, record.index)) {
            report.damage(fmt::format("index {} is given out twice", record.index));
          }
        },
        [] { return 0; });
  }
  template <class Kind>
  void checkHolds(CollectionReport& report) {
    const auto holds = Common::openHolds<Kind>(session_.memory());
    checkCollection<PactResourceTable::HoldRecord>(
        *holds, report, [](const PactResourceTable::HoldRecord&) {}, [] { return 0; });
  }
  template <class Kind>
  void checkReleases(CollectionReport& report) {
    const auto releases = Common::openReleases<Kind>(session_.memory());
    checkCollection<PactResourceTable::ReleaseRecord>(
        *releases, report,
        [&](const PactResourceTable::ReleaseRecord& release) {
          if (release.key.number == 0 || release.key.number > Kind::kLimit) {
            report.damage(fmt::format("a release of index {}, where there are 1 to {}",
                                      release.key.number, Kind::kLimit));
          }
        },
        [] { return 0; });
  }

  void checkStatus(CollectionReport& report) {
    using Record = Asic::StatusQuiltEntry;
    const auto status = Common::openStatus(session_.memory());
    checkCollection<Record>(
        *status, report, [](const Record&) {}, [] { return 0; });
  }

  // A collection of a program that this one does not know: its header is all that can be judged.
  void checkUnknown(CollectionReport& report) {
    Quilt::Header header;
    std::ifstream file(report.file, std::ios::binary);
    if (!file.read(static_cast<char*>(static_cast<void*>(&header)), sizeof header)) {
      report.damage("the file is too short for a header");
      return;
    }
    const auto constants = Quilt::wholeConstants(header);
    if (!constants) {
      report.damage("the file has no whole header");
      return;
    }
    if (!Quilt::bothConstantsWhole(header)) {
      report.damage("one of the two copies of the header is damaged");
    }
    report.failed.push_back(
        fmt::format("it is a {}, which this program does not know: only its header was looked at",
                    std::string(constants->typeName,
                                ::strnlen(constants->typeName, sizeof constants->typeName))));
  }

  // A register says that its collection has been made; then the file must be there.
  void tellMissing() {
    namespace fs = std::filesystem;
    const std::string suffix = Quilt::kRegisterSuffix;
    std::error_code error;
    for (fs::recursive_directory_iterator at(session_.folder(),
                                             fs::directory_options::skip_permission_denied, error);
         !error && at != fs::recursive_directory_iterator(); at.increment(error)) {
      const std::string name = at->path().string();
      if (name.size() <= suffix.size() ||
          name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0) {
        continue;
      }
      const std::string base = name.substr(0, name.size() - suffix.size());
      std::error_code none;
      if (fs::exists(base + Quilt::kFileSuffix, none) || !RegisterText::of(name).made) {
        continue;
      }
      CollectionReport report;
      report.file = base + Quilt::kFileSuffix;
      report.path = BrioSharedMem::decodedPath(base.substr(session_.folder().size() + 1))
                        .value_or(report.file);
      report.damage(
          "the collection has existed, and its file is gone; its writer's next start "
          "makes it anew, without the records");
      print(report);
    }
  }

  void begin() {
    if (session_.json()) {
      session_.out().text() += R"({"store":)";
      Common::appendString(session_.out().text(), session_.folder());
      session_.out().line(R"(,"collections":[)");
    }
  }

  void print(const CollectionReport& report) {
    ++collections_;
    records_ += report.records;
    damages_ += report.damageCount;
    failed_ += report.failed.size();
    if (session_.json()) {
      printJson(report);
      return;
    }
    Output& out = session_.out();
    out.line(fmt::format("{:<7}  {:>8} {}  {}",
                         !report.sound()          ? "DAMAGED"
                         : !report.failed.empty() ? "unknown"
                                                  : "sound",
                         report.records, report.records == 1 ? "record " : "records", report.path));
    for (const Finding& finding : report.damages) {
      out.line(fmt::format("    {}: {}{}", report.file,
                           finding.slot ? fmt::format("slot {}: ", *finding.slot) : std::string(),
                           finding.cause));
    }
    if (report.damageCount > report.damages.size()) {
      out.line(fmt::format("    and {} more", report.damageCount - report.damages.size()));
    }
    for (const std::string& text : report.failed) {
      out.line("    not checked: " + text);
    }
    for (const std::string& text : report.notes) {
      out.line("    note: " + text);
    }
  }

  void printJson(const CollectionReport& report) {
    std::string& out = session_.out().text();
    out += collections_ == 1 ? "" : ",";
    out += R"({"path":)";
    Common::appendString(out, report.path);
    out += R"(,"file":)";
    Common::appendString(out, report.file);
    fmt::format_to(std::back_inserter(out), R"(,"sound":{},"records":{},"damages":[)",
                   report.sound() && report.failed.empty(), report.records);
    for (std::size_t i = 0; i < report.damages.size(); ++i) {
      const Finding& finding = report.damages[i];
      fmt::format_to(std::back_inserter(out), R"({}{{"slot":{},"cause":)", i == 0 ? "" : ",",
                     finding.slot ? std::to_string(*finding.slot) : "null");
      Common::appendString(out, finding.cause);
      out += '}';
    }
    fmt::format_to(std::back_inserter(out), R"(],"damageCount":{})", report.damageCount);
    const auto appendTexts = [&](const char* name, const std::vector<std::string>& texts) {
      fmt::format_to(std::back_inserter(out), R"(,"{}":[)", name);
      for (std::size_t i = 0; i < texts.size(); ++i) {
        out += i == 0 ? "" : ",";
        Common::appendString(out, texts[i]);
      }
      out += ']';
    };
    appendTexts("notChecked", report.failed);
    appendTexts("notes", report.notes);
    out += '}';
    session_.out().lineEnd();
  }

  void end() {
    const bool sound = damages_ == 0 && failed_ == 0 && collections_ != 0;
    if (session_.json()) {
      session_.out().line(fmt::format(R"(],"records":{},"damageCount":{},"sound":{}}})", records_,
                                      damages_, sound));
    } else {
      session_.out().line(fmt::format(
          "{} collections, {} records: {}", collections_, records_,
          sound           ? "all sound"
          : damages_ != 0 ? fmt::format("{} damage{}", damages_, damages_ == 1 ? "" : "s")
                          : "not all of it could be checked"));
    }
    session_.out().flush();
    if (damages_ != 0) {
      session_.damage(
          "the store is damaged; the next start of the programs that write it saves "
          "what is whole");
    } else if (failed_ != 0) {
      session_.failed("not all collections could be checked");
    } else if (collections_ == 0) {
      session_.failed(session_.folder() + " holds no collections: kelp-agent makes them");
    }
  }

  Session& session_;
  std::set<Lumen::String> paths_;
  std::uint64_t collections_ = 0;
  std::uint64_t records_ = 0;
  std::uint64_t damages_ = 0;
  std::uint64_t failed_ = 0;
};

}  // namespace

void check(Session& session) { Check(session).run(); }

}  // namespace Kelp
