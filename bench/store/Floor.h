#pragma once

#include <cstdint>
#include <memory>

#include "Records.h"

namespace StoreBench {

// The least that the work of the store can cost: the same layout, checksums and order of stores,
// written straight down for these two records, in a file on the same file system. It checks nothing
// that it is not asked for: no room, no damage, no bounds, no counts.
class Floor {
 public:
  explicit Floor(const char* fileName);
  ~Floor();
  Floor(const Floor&) = delete;
  Floor& operator=(const Floor&) = delete;

  void write(const ConfigRecord& config, const LogRecord& log);
  [[nodiscard]] const ConfigRecord* find(std::uint32_t key) const;
  [[nodiscard]] bool copyOut(std::uint32_t key, ConfigRecord& out) const;
  void configDel(std::uint32_t key);
  void logDel(std::uint64_t version);
  // Walks all configuration records; gives a sum over them.
  [[nodiscard]] std::uint64_t walk() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace StoreBench
