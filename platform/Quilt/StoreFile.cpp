#include "Quilt/StoreFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <vector>

#include "Quilt/FileError.h"
#include "Quilt/Seam.h"

namespace Quilt {
namespace {

constexpr mode_t kFileMode = 0640;

// A file descriptor until somebody takes it over.
class Descriptor {
 public:
  explicit Descriptor(int fd) noexcept : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) {
      ::close(fd_);
    }
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  [[nodiscard]] int get() const noexcept { return fd_; }
  [[nodiscard]] int detach() noexcept { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

// The constants of the file, if one of their copies is whole. `both` says whether both are.
std::optional<HeaderConstants> readConstants(int fd, bool& both) {
  Header header;
  if (::pread(fd, static_cast<void*>(&header), sizeof header, 0) !=
      static_cast<ssize_t>(sizeof header)) {
    return std::nullopt;
  }
  both = bothConstantsWhole(header);
  return wholeConstants(header);
}

std::uint64_t sizeOf(int fd, const Lumen::String& path, const Lumen::String& fileName) {
  struct stat status {};
  if (::fstat(fd, &status) != 0) {
    throw fileError(path, "look at", fileName, errno);
  }
  return static_cast<std::uint64_t>(status.st_size);
}

std::string_view typeNameOf(const HeaderConstants& constants) {
  return {constants.typeName, ::strnlen(constants.typeName, sizeof constants.typeName)};
}

Geometry geometryOf(const HeaderConstants& constants) {
  return Geometry::of(constants.capacity, constants.headroom, constants.slotBytes);
}

}  // namespace

StoreFile::StoreFile(const FilePlace& place, const Geometry& geometry, int fd, bool readOnly)
    : place_(place),
      geometry_(geometry),
      dataFile_(place.local() ? "private memory" : place.fileBase + kFileSuffix),
      fd_(fd),
      readOnly_(readOnly) {}

StoreFile::~StoreFile() {
  if (base_ != nullptr) {
    ::munmap(base_, geometry_.fileBytes);
  }
  ::close(fd_);
}

void StoreFile::map() {
  void* const base = ::mmap(nullptr, geometry_.fileBytes,
                            readOnly_ ? PROT_READ : PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
  if (base == MAP_FAILED) {
    throw fileError(place_.path, "map", dataFile_, errno);
  }
  base_ = base;
  struct stat status {};
  if (::fstat(fd_, &status) != 0) {
    throw fileError(place_.path, "look at", dataFile_, errno);
  }
  inode_ = status.st_ino;
  device_ = status.st_dev;
}

void StoreFile::constantsIs(const HeaderConstants& constants) {
  incarnation_ = constants.incarnation;
  collectionName_.assign(constants.collectionName,
                         ::strnlen(constants.collectionName, sizeof constants.collectionName));
}

StoreFile::Found StoreFile::openExisting(const FilePlace& place, const Shape& shape) {
  const Lumen::String name = place.fileBase + kFileSuffix;
  Descriptor fd(::open(name.c_str(), O_RDWR | O_CLOEXEC));
  if (fd.get() < 0) {
    if (errno == ENOENT) {
      return {};
    }
    throw fileError(place.path, "open", name, errno);
  }
  const std::uint64_t size = sizeOf(fd.get(), place.path, name);
  if (size < kPageBytes) {
    return {Verdict::tooShort, nullptr};
  }
  bool both = false;
  const auto constants = readConstants(fd.get(), both);
  if (!constants || !sameLayout(*constants, shape)) {
    return {Verdict::otherLayout, nullptr};
  }
  const Geometry geometry = geometryOf(*constants);
  if (size < geometry.fileBytes) {
    return {Verdict::tooShort, nullptr};
  }
  auto file = Lumen::makeNode<StoreFile>(place, geometry, fd.get(), false);
  static_cast<void>(fd.detach());
  file->constantsIs(*constants);
  file->map();
  Verdict verdict = Verdict::sound;
  if (!both || file->header().damaged.load(std::memory_order_acquire) != 0) {
    verdict = Verdict::damaged;
  } else if (constants->capacity != shape.capacity) {
    verdict = Verdict::otherCapacity;
  }
  return {verdict, std::move(file)};
}

Lumen::Ptr<StoreFile> StoreFile::make(const FilePlace& place, const Shape& shape, bool wiped) {
  const Geometry geometry = Geometry::of(shape.capacity, shape.headroom, shape.slotBytes);
  const Lumen::String name = place.local() ? "private memory" : place.fileBase + kNewSuffix;
  Seam::step();
  int made;
  if (place.local()) {
    made = ::memfd_create("quilt", MFD_CLOEXEC);
  } else {
    removeLeftovers(place);
    made = ::open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kFileMode);
  }
  if (made < 0) {
    throw fileError(place.path, "make", name, errno);
  }
  Descriptor fd(made);
  Seam::step();
  ::fchmod(fd.get(), kFileMode);
  Seam::step();
  if (::ftruncate(fd.get(), static_cast<off_t>(geometry.fileBytes)) != 0) {
    throw fileError(place.path, "size", name, errno);
  }
  auto file = Lumen::makeNode<StoreFile>(place, geometry, fd.get(), false);
  static_cast<void>(fd.detach());
  file->map();
  if (!file->reserve(0, kPageBytes)) {
    throw fileError(place.path, "take space for", name, file->lastError());
  }
  Header& header = file->header();
  HeaderConstants constants;
  headerConstantsIs(constants, shape);
  Seam::copy(&header.constants, &constants, sizeof constants);
  Seam::copy(&header.copy, &constants, sizeof constants);
  Seam::store(header.wiped, std::uint64_t{wiped ? 1U : 0U}, std::memory_order_release);
  file->constantsIs(constants);
  return file;
}

Lumen::Ptr<StoreFile> StoreFile::openReader(const FilePlace& place, const Shape& shape) {
  const Lumen::String name = place.fileBase + kFileSuffix;
  Descriptor fd(::open(name.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) {
    if (errno == ENOENT) {
      throw BrioSharedMem::AbsentError(fileError(place.path, "open", name, errno).what());
    }
    throw fileError(place.path, "open", name, errno);
  }
  const std::uint64_t size = sizeOf(fd.get(), place.path, name);
  bool both = false;
  const auto constants = size < kPageBytes ? std::nullopt : readConstants(fd.get(), both);
  if (size < kPageBytes ||
      (constants && sameLayout(*constants, shape) && size < geometryOf(*constants).fileBytes)) {
    throw BrioSharedMem::StoreError(fmt::format(
        "{}: {} is too short ({} bytes): it has been cut; restart the process that writes "
        "it, which makes it anew",
        place.path, name, size));
  }
  if (!constants) {
    throw BrioSharedMem::StoreError(fmt::format(
        "{}: {} has no whole header: it is damaged, or no collection; restart the process "
        "that writes it, which makes it anew",
        place.path, name));
  }
  if (!sameLayout(*constants, shape)) {
    throw BrioSharedMem::OtherLayoutError(
        fmt::format("{}: {} has another layout (format {}, type {}, signature {:016x}) than this "
                    "program expects "
                    "(format {}, type {}, signature {:016x}); run this program in the version of "
                    "the process that "
                    "writes the file",
                    place.path, name, constants->formatVersion, typeNameOf(*constants),
                    constants->signature, kFormatVersion, shape.typeName, shape.signature));
  }
  auto file = Lumen::makeNode<StoreFile>(place, geometryOf(*constants), fd.get(), true);
  static_cast<void>(fd.detach());
  file->constantsIs(*constants);
  file->map();
  return file;
}

Lumen::Ptr<StoreFile> StoreFile::mapAgain() const {
  const int fd = ::fcntl(fd_, F_DUPFD_CLOEXEC, 0);
  if (fd < 0) {
    throw fileError(place_.path, "open", dataFile_, errno);
  }
  auto file = Lumen::makeNode<StoreFile>(place_, geometry_, fd, true);
  file->incarnation_ = incarnation_;
  file->collectionName_ = collectionName_;
  file->map();
  return file;
}

void StoreFile::removeLeftovers(const FilePlace& place) {
  if (!place.local()) {
    Seam::step();
    ::unlink((place.fileBase + kNewSuffix).c_str());
  }
}

void StoreFile::install() {
  if (place_.local()) {
    return;
  }
  const Lumen::String& name = dataFile_;
  struct stat status {};
  if (::stat(name.c_str(), &status) == 0) {
    // A second name first and the replacement second: whoever dies in between leaves the old file
    // in its place, to be set aside again. Its number in the name keeps the two tries apart.
    removeAsideFiles();
    const Lumen::String aside = fileName(kAsideSuffix) + std::to_string(status.st_ino);
    Seam::step();
    if (::link(name.c_str(), aside.c_str()) != 0 && errno != EEXIST) {
      throw fileError(place_.path, "set aside", name, errno);
    }
  }
  Seam::step();
  if (::rename(fileName(kNewSuffix).c_str(), name.c_str()) != 0) {
    throw fileError(place_.path, "put in place", name, errno);
  }
}

void StoreFile::removeAsideFiles() const {
  const std::filesystem::path base(fileName(kAsideSuffix));
  const std::string prefix = base.filename().string();
  std::error_code ignored;
  std::vector<std::filesystem::path> found;
  for (const auto& entry : std::filesystem::directory_iterator(base.parent_path(), ignored)) {
    if (entry.path().filename().string().compare(0, prefix.size(), prefix) == 0) {
      found.push_back(entry.path());
    }
  }
  for (const auto& path : found) {
    Seam::step();
    std::filesystem::remove(path, ignored);
  }
}

bool StoreFile::reserve(std::uint64_t offset, std::uint64_t bytes) noexcept {
  const std::uint64_t from = offset / kPageBytes * kPageBytes;
  const std::uint64_t to =
      std::min(geometry_.fileBytes, (offset + bytes + kPageBytes - 1) / kPageBytes * kPageBytes);
  Seam::step();
  lastError_ = ::posix_fallocate(fd_, static_cast<off_t>(from), static_cast<off_t>(to - from));
  if (lastError_ != 0) {
    return false;
  }
#ifdef MADV_POPULATE_WRITE
  // The page tables too, in one go; a kernel that cannot does it page by page later.
  static_cast<void>(::madvise(at(from), to - from, MADV_POPULATE_WRITE));
#endif
  return true;
}

std::uint64_t StoreFile::dataEnd(std::uint64_t offset) const noexcept {
  std::uint64_t end = offset;
  for (off_t at = static_cast<off_t>(offset);;) {
    const off_t data = ::lseek(fd_, at, SEEK_DATA);
    if (data < 0) {
      return errno == ENXIO ? end : geometry_.fileBytes;
    }
    at = ::lseek(fd_, data, SEEK_HOLE);
    if (at < 0) {
      return geometry_.fileBytes;
    }
    end = static_cast<std::uint64_t>(at);
  }
}

std::uint64_t StoreFile::dataFrom(std::uint64_t offset) const noexcept {
  const off_t data = ::lseek(fd_, static_cast<off_t>(offset), SEEK_DATA);
  if (data < 0) {
    return errno == ENXIO ? geometry_.fileBytes : offset;
  }
  return static_cast<std::uint64_t>(data);
}

bool StoreFile::replaced() const noexcept {
  if (place_.local()) {
    return false;
  }
  struct stat there {};
  return ::stat(dataFile_.c_str(), &there) != 0 || there.st_ino != inode_ ||
         there.st_dev != device_;
}

}  // namespace Quilt
