#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Records.h"

namespace StoreBench {

// The same work on LMDB in a folder of its own: two databases and a version word, 100 operations a
// transaction, no sync, mapped writable.
class Lmdb {
 public:
  explicit Lmdb(const std::string& folder);
  ~Lmdb();
  Lmdb(const Lmdb&) = delete;
  Lmdb& operator=(const Lmdb&) = delete;

  void write(const std::vector<std::uint32_t>& keys, std::uint64_t firstVersion);
  // Reads all keys, in read transactions of 100; gives a sum over the records.
  [[nodiscard]] std::uint64_t read(const std::vector<std::uint32_t>& keys) const;
  void clear();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// The same in private memory, which nobody else sees and which does not outlive the process.
class PrivateMap {
 public:
  PrivateMap();
  ~PrivateMap();
  PrivateMap(const PrivateMap&) = delete;
  PrivateMap& operator=(const PrivateMap&) = delete;

  void write(const std::vector<std::uint32_t>& keys, std::uint64_t firstVersion);
  [[nodiscard]] std::uint64_t read(const std::vector<std::uint32_t>& keys) const;
  void clear();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace StoreBench
