#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "BrioQuilt/CollectionControl.h"
#include "Quilt/QuiltMapBase.h"
#include "Quilt/StoreFile.h"
#include "Quilt/Survey.h"

namespace Kelp {

// What a check has found in one file.
struct Finding {
  std::optional<std::uint32_t> slot;
  std::string cause;
};

// The findings on one collection.
struct CollectionReport {
  static constexpr std::size_t kMostFindings = 1000;

  std::string path;
  std::string file;
  std::uint64_t records = 0;
  bool looked = false;              // the file could be opened at all
  std::vector<Finding> damages;     // the first ones
  std::uint64_t damageCount = 0;    // all
  std::vector<std::string> notes;   // worth knowing, and no damage
  std::vector<std::string> failed;  // what could not be checked

  void damage(std::string cause, std::optional<std::uint32_t> slot = std::nullopt);
  [[nodiscard]] bool sound() const noexcept { return damageCount == 0; }
};

// What the header of a collection says, and whether that can be.
void checkHeader(const Quilt::QuiltMapBase& map, CollectionReport& report);
// Whether the words of a change log can be: no version is published before it is issued.
void checkLogWords(const BrioQuilt::CollectionControl& log, CollectionReport& report);

// Whether the count in the header is that of the records. `countAgain` counts them; `moves` is
// anything that changes when the collection's writer has done something.
void checkCount(const Quilt::QuiltMapBase& map, const std::function<std::uint64_t()>& countAgain,
                const std::function<std::uint64_t()>& moves, CollectionReport& report);

// The register of a collection, which stands beside its file: the collection has been made once,
// and the process that writes it, or did so last.
struct RegisterText {
  bool made = false;
  int process = 0;

  // An unreadable register is as good as none.
  [[nodiscard]] static RegisterText of(const std::string& registerFile);
  [[nodiscard]] bool writerLives() const;
};

}  // namespace Kelp
