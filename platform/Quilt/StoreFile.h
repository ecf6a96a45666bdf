#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "Lumen/Node.h"
#include "Lumen/Ptr.h"
#include "Lumen/String.h"
#include "Quilt/Layout.h"
#include "Quilt/Register.h"

namespace Quilt {

// Where a collection lies: its entity path, by which errors name it, and its file without the
// suffix. An empty file name means private memory that is shared with nobody.
struct FilePlace {
  Lumen::String path;
  Lumen::String fileBase;

  [[nodiscard]] bool local() const noexcept { return fileBase.empty(); }
};

// Suffixes of the files of a collection. Only the first is an entity to those who list a folder.
inline constexpr char kFileSuffix[] = ".quilt";
inline constexpr char kRegisterSuffix[] = ".register";
inline constexpr char kNewSuffix[] = ".quilt.new";
inline constexpr char kAsideSuffix[] = ".quilt.aside.";

// A collection file in the address space of this process: the file, its mapping and the space that
// it takes from the file system. Knows nothing of records. A file never shrinks and is never
// written anew under somebody who has it mapped: it is replaced by another under the same name, and
// whoever has the old one mapped keeps it whole. (To cut a file in use by hand is to pull the rug
// from under its readers: they die by SIGBUS.)
class StoreFile final : public Lumen::Node {
 public:
  // What a writer finds at a place.
  enum class Verdict { absent, tooShort, otherLayout, otherCapacity, damaged, sound };
  struct Found {
    Verdict verdict = Verdict::absent;
    Lumen::Ptr<StoreFile> file;  // set for the last three
  };

  // Opens what is there for writing. The caller holds the register. Throws StoreError if the file
  // system refuses.
  [[nodiscard]] static Found openExisting(const FilePlace& place, const Shape& shape);
  // Makes a new, empty, sparse file under a name aside, or private memory. Throws StoreError.
  [[nodiscard]] static Lumen::Ptr<StoreFile> make(const FilePlace& place, const Shape& shape,
                                                  bool wiped);
  // Removes what a writer left behind that died while it made a file. The caller holds the
  // register.
  static void removeLeftovers(const FilePlace& place);
  // Opens a file read-only. Throws StoreError: absent, too short, of another layout, not whole.
  [[nodiscard]] static Lumen::Ptr<StoreFile> openReader(const FilePlace& place, const Shape& shape);
  // A read-only mapping of the same bytes, in this process. Throws StoreError.
  [[nodiscard]] Lumen::Ptr<StoreFile> mapAgain() const;

  StoreFile(const FilePlace& place, const Geometry& geometry, int fd, bool readOnly);
  ~StoreFile() override;

  // Gives a file from make() its name. One that stands there is set aside: it keeps its bytes under
  // a name that no search takes for an entity, until the next one is set aside. Throws StoreError.
  void install();
  // Takes space for `bytes` from `offset` on, whole pages, so that a store to them cannot fail.
  // False if there is none; lastError() says why.
  [[nodiscard]] bool reserve(std::uint64_t offset, std::uint64_t bytes) noexcept;
  // Bytes that were ever written, as the file system knows: the first at or after `offset` (the
  // file's size if there is none), and the end of the last.
  [[nodiscard]] std::uint64_t dataFrom(std::uint64_t offset) const noexcept;
  [[nodiscard]] std::uint64_t dataEnd(std::uint64_t offset) const noexcept;

  // True if the path leads to another file by now, or to none: open it again. A system call.
  [[nodiscard]] bool replaced() const noexcept;

  [[nodiscard]] Header& header() const noexcept { return *static_cast<Header*>(base_); }
  [[nodiscard]] void* at(std::uint64_t offset) const noexcept {
    return static_cast<std::byte*>(base_) + offset;
  }
  [[nodiscard]] const Geometry& geometry() const noexcept { return geometry_; }
  [[nodiscard]] std::uint64_t incarnation() const noexcept { return incarnation_; }
  [[nodiscard]] const Lumen::String& collectionName() const noexcept { return collectionName_; }
  [[nodiscard]] const Lumen::String& path() const noexcept { return place_.path; }
  [[nodiscard]] bool readOnly() const noexcept { return readOnly_; }
  [[nodiscard]] int lastError() const noexcept { return lastError_; }

  // The writer's lock goes with the mapping.
  void registerIs(std::unique_ptr<Register> held) noexcept { register_ = std::move(held); }

 private:
  [[nodiscard]] Lumen::String fileName(const char* suffix) const {
    return place_.fileBase + suffix;
  }
  void map();
  void constantsIs(const HeaderConstants& constants);
  void removeAsideFiles() const;

  FilePlace place_;
  Geometry geometry_;
  Lumen::String dataFile_;
  Lumen::String collectionName_;
  std::uint64_t incarnation_ = 0;
  void* base_ = nullptr;
  std::uint64_t inode_ = 0;
  std::uint64_t device_ = 0;
  int fd_;
  bool readOnly_;
  int lastError_ = 0;
  std::unique_ptr<Register> register_;
};

}  // namespace Quilt
