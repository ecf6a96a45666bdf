#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "Lumen/String.h"

namespace BrioQuilt {

// Kinds of entities that hold collections.
enum class BrioQuiltType : std::uint8_t { collection = 0 };

// What a mount declares of one collection. The flag is kept and has no effect.
class CollectionInfo {
 public:
  CollectionInfo(Lumen::String name, std::uint32_t capacity, bool flag)
      : name_(std::move(name)), capacity_(capacity), flag_(flag) {}

  [[nodiscard]] const Lumen::String& name() const noexcept { return name_; }
  // Records, at least 1.
  [[nodiscard]] std::uint32_t capacity() const noexcept { return capacity_; }
  [[nodiscard]] bool flag() const noexcept { return flag_; }

 private:
  Lumen::String name_;
  std::uint32_t capacity_;
  bool flag_;
};

// What a mount declares of an entity: its one collection.
class MountInfo {
 public:
  explicit MountInfo(BrioQuiltType type) : type_(type) {}

  [[nodiscard]] BrioQuiltType type() const noexcept { return type_; }
  void collectionInfoIs(CollectionInfo info) { collections_.push_back(std::move(info)); }
  [[nodiscard]] const std::vector<CollectionInfo>& collectionInfo() const noexcept {
    return collections_;
  }

 private:
  BrioQuiltType type_;
  std::vector<CollectionInfo> collections_;
};

}  // namespace BrioQuilt
