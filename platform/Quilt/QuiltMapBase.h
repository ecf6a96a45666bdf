#pragma once

#include <atomic>
#include <cstdint>

#include "Lumen/Ptr.h"
#include "Lumen/String.h"
#include "Quilt/Layout.h"
#include "Quilt/StoreFile.h"

namespace Quilt {

// What all collections have in common, whatever their records are.
class QuiltMapBase {
 public:
  QuiltMapBase(const QuiltMapBase&) = delete;
  QuiltMapBase& operator=(const QuiltMapBase&) = delete;

  // Records in the collection. Constant time. In a reader it is the writer's last word, which may
  // run one ahead of the records, and is never more than there is room for.
  [[nodiscard]] std::uint64_t size() const noexcept { return readOnly_ ? sharedSize() : records_; }
  // As declared at the mount.
  [[nodiscard]] std::uint32_t capacity() const noexcept { return file_->geometry().capacity; }
  // Records that there is room for: the capacity, or a multiple of it where the record type says
  // so.
  [[nodiscard]] std::uint32_t limit() const noexcept { return file_->geometry().limit; }
  // The entity's path and the declared name.
  [[nodiscard]] const Lumen::String& path() const noexcept { return file_->path(); }
  [[nodiscard]] const Lumen::String& collectionName() const noexcept {
    return file_->collectionName();
  }
  [[nodiscard]] bool readOnly() const noexcept { return readOnly_; }
  // Corruption has been met: by the writer at any time since the file was made, or through this
  // object.
  [[nodiscard]] bool damaged() const noexcept;

  // Takes the text of a CorruptionDetectedException that a read of this collection threw. Logs it,
  // the first time, and marks the collection as damaged, so that the next mount saves what is
  // whole. A reader, which cannot write, only logs.
  void doCorruptionDetected(const Lumen::String& text) const;

  [[nodiscard]] const Lumen::Ptr<StoreFile>& file() const noexcept { return file_; }

 protected:
  explicit QuiltMapBase(Lumen::Ptr<StoreFile> file);
  ~QuiltMapBase() = default;

  // Throws CorruptionDetectedException with `what`, the place and the collection.
  [[noreturn, gnu::cold]] void corrupt(const char* what, std::uint64_t link) const;
  // A change had to cut a chain: marks the collection and says so, once.
  void reportCut() const;
  // Ends the process: a record without room, a change through a read-only mapping.
  [[noreturn, gnu::cold]] void noRoom(const char* what) const;
  void assertWritable() const noexcept {
    if (readOnly_) [[unlikely]] {
      noRoom("this process has it open as a reader");
    }
  }
  [[nodiscard]] std::uint64_t sharedSize() const noexcept;

  // One attempt after the other at a bucket that a writer changes meanwhile.
  class Restarts {
   public:
    // Counts an attempt that failed since `link` led to a slot of another generation. Throws
    // CorruptionDetectedException if that cannot be a writer's doing.
    [[gnu::cold]] void again(const QuiltMapBase& map, std::uint64_t link);

   private:
    std::uint64_t suspect_ = 0;
    std::uint32_t tries_ = 0;
  };

  Lumen::Ptr<StoreFile> file_;
  Header* header_;
  bool readOnly_;
  std::uint64_t records_ = 0;  // the writer's count; the source of truth are the chains
  std::uint64_t serial_;       // of this object, in this process

 private:
  mutable std::atomic<bool> reported_{false};
};

}  // namespace Quilt
