#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Asic/GroupQuilts.h"
#include "Asic/SwTableId.h"
#include "BrioQuilt/CollectionControl.h"
#include "BrioSharedMem/EntityManager.h"
#include "Lumen/Ptr.h"
#include "Quilt/StoreFile.h"
#include "Quilt/Survey.h"
#include "kelp/Output.h"

namespace Kelp {

// What the program ends with. The larger one counts where several apply.
enum Exit : int {
  kDone = 0,
  kFailed = 1,        // something asked for is not there, or could not be done
  kUsage = 2,         // the command line is wrong
  kDamage = 3,        // damage was met; what is whole was shown
  kOutputGone = 141,  // as if SIGPIPE had ended it
};

struct Options {
  std::string name = "kelp";
  std::string root = "/dev/shm";
  bool json = false;
  std::string table;
  std::string key;
  std::optional<std::uint16_t> unit;
  std::vector<std::string> where;
  bool follow = false;
  // Of the commands that ask a running agent.
  std::string inspect;  // its socket; empty: the usual place
  std::string path;
  std::vector<std::string> arguments;
  std::string resource;
  std::string handle;
  std::string levels;
  std::optional<std::uint64_t> limit;
  std::optional<std::uint64_t> since;  // seconds
  double interval = 1;                 // seconds
  bool complete = false;
  bool read = false;
  bool prometheus = false;
  bool once = false;
};

// Ends a command with a message and a status.
class CommandError : public std::runtime_error {
 public:
  CommandError(Exit status, const std::string& text) : std::runtime_error(text), status_(status) {}
  [[nodiscard]] Exit status() const noexcept { return status_; }

 private:
  Exit status_;
};

// A store that one command looks at: read-only and without locks, whether its programs run or not.
class Session {
 public:
  // Throws CommandError if there is no store.
  explicit Session(const Options& options);

  [[nodiscard]] const Options& options() const noexcept { return options_; }
  [[nodiscard]] const BrioSharedMem::EntityManager& memory() const noexcept { return *memory_; }
  // The folder of the store.
  [[nodiscard]] const std::string& folder() const noexcept { return folder_; }
  // The file of a collection.
  [[nodiscard]] std::string fileOf(const Lumen::String& path) const;
  [[nodiscard]] Output& out() noexcept { return out_; }
  [[nodiscard]] bool json() const noexcept { return options_.json; }

  // Each tells a line on stderr. note() says something worth knowing; failed() and damage() set the
  // exit status, too. A store can be damaged in many places: after some, they are only counted.
  void note(std::string_view text) const;
  void failed(std::string_view text);
  void damage(std::string_view text);
  // A place in a file.
  void damage(const Quilt::StoreFile& file, const Quilt::Damage& damage);
  // What could not be opened; being absent is no damage and is told as a failure.
  void notOpened(const std::exception& error) { failed(error.what()); }

  // The status so far; tells how much damage was only counted.
  [[nodiscard]] Exit conclude();

 private:
  static constexpr std::uint64_t kMostTold = 20;

  Options options_;
  Lumen::Ptr<BrioSharedMem::EntityManager> memory_;
  std::string folder_;
  Output out_;
  Exit status_ = kDone;
  std::uint64_t damages_ = 0;
};

// "slot 3: a record does not fit its checksum".
[[nodiscard]] std::string damageText(const Quilt::Damage& damage);

// The number of the table of this name. Throws CommandError, with the names that come near.
[[nodiscard]] std::size_t tableOf(const std::string& name);
// Those of `names` that may have been meant, the likeliest first.
[[nodiscard]] std::vector<std::string_view> nearNames(std::string_view name,
                                                      const std::vector<std::string_view>& names);

// What the hardware side has reported of one table.
class Reports {
 public:
  // `log` may be null: then nothing has been reported.
  Reports(Session& session, Asic::SwTableId table, Lumen::Ptr<BrioQuilt::CollectionControl> log);

  // The version of the last look; nothing if the hardware side has never reported this log.
  [[nodiscard]] std::optional<std::uint64_t> version() const noexcept { return version_; }
  void look();
  // Whether `version` is reported by now.
  [[nodiscard]] bool covers(std::uint64_t version) {
    if (version_.value_or(0) < version && log_) {
      look();
    }
    return version_ && *version_ >= version;
  }

 private:
  Session& session_;
  Asic::SwTableId table_;
  Lumen::Ptr<BrioQuilt::CollectionControl> log_;
  Lumen::Ptr<Asic::StatusQuilt> status_;
  std::optional<std::uint64_t> version_;
  bool damaged_ = false;
};

}  // namespace Kelp
