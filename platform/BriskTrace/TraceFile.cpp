#include "BriskTrace/TraceFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "Lumen/Assert.h"

namespace BriskTrace {
namespace {

std::atomic<std::int32_t> lastId{0};

[[noreturn]] void fail(const Lumen::String& file, const char* what, int reason,
                       const char* remedy) {
  throw TraceFileError(fmt::format("{}: {}: {}; {}", file, what, std::strerror(reason), remedy));
}

// Closes what it holds unless it was given on.
class Descriptor {
 public:
  explicit Descriptor(int file) : file_(file) {}
  ~Descriptor() {
    if (file_ >= 0) {
      ::close(file_);
    }
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  [[nodiscard]] int get() const noexcept { return file_; }
  [[nodiscard]] int release() noexcept { return std::exchange(file_, -1); }

 private:
  int file_;
};

// A file under a name of its own that is gone again unless it is moved to its place.
class NewFile {
 public:
  explicit NewFile(const Lumen::String& path)
      : name_(fmt::format("{}.new.{}", path, ::getpid())), file_(make(name_)) {}
  ~NewFile() {
    if (!moved_) {
      ::unlink(name_.c_str());
    }
  }
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  [[nodiscard]] int file() const noexcept { return file_.get(); }
  [[nodiscard]] int release() noexcept { return file_.release(); }
  void moveTo(const Lumen::String& path) {
    if (::rename(name_.c_str(), path.c_str()) != 0) {
      fail(path, "cannot put the trace file into its place", errno,
           "let this user write to the folder");
    }
    moved_ = true;
  }

 private:
  static int make(const Lumen::String& name) {
    ::unlink(name.c_str());  // of a process that had this id and was killed here
    const int file = ::open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0640);
    if (file < 0) {
      fail(name, "cannot make the trace file", errno,
           "make the folder, and let this user write to it");
    }
    return file;
  }

  Lumen::String name_;
  Descriptor file_;
  bool moved_ = false;
};

// Throws if what stands at `path` is not ours to move away.
bool earlierRunStands(const Lumen::String& path) {
  const Descriptor earlier(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (earlier.get() < 0) {
    if (errno == ENOENT) {
      return false;
    }
    fail(path, "cannot open the trace file of the run before", errno,
         "let this user read it, or move it away");
  }
  Layout::FixedHeader header{};
  const ssize_t count = ::pread(earlier.get(), &header, sizeof(header), 0);
  if (count != static_cast<ssize_t>(sizeof(header)) || header.magic != Layout::kMagic) {
    throw TraceFileError(fmt::format(
        "{}: is no trace file, and is not overwritten; move it away or give another path", path));
  }
  if (::flock(earlier.get(), LOCK_SH | LOCK_NB) != 0) {
    throw TraceFileError(
        fmt::format("{}: process {} is writing this trace file; stop it, or give another path",
                    path, header.pid));
  }
  return true;
}

void keepEarlierRuns(const Lumen::String& path, unsigned runsKept) {
  if (!earlierRunStands(path)) {
    return;
  }
  const auto name = [&](unsigned run) { return run == 0 ? path : fmt::format("{}.{}", path, run); };
  for (unsigned run = runsKept; run > 0; --run) {
    if (::rename(name(run - 1).c_str(), name(run).c_str()) != 0 && errno != ENOENT) {
      fail(name(run), "cannot keep the trace file of an earlier run", errno,
           "let this user write to the folder");
    }
  }
}

std::uint64_t powerOfTwo(std::uint32_t slots) {
  return std::bit_ceil(std::clamp<std::uint32_t>(slots, 2, Layout::kMostRingSlots));
}

}  // namespace

TraceFileError::~TraceFileError() = default;

TraceFile::TraceFile(Lumen::String path, const Options& options)
    : path_(std::move(path)), shared_(options.shared) {
  NewFile fresh(path_);
  if (::flock(fresh.file(), LOCK_EX | LOCK_NB) != 0) {
    fail(path_, "cannot lock the trace file", errno, "give a path on a file system with locks");
  }
  map(fresh.file(), powerOfTwo(options.ringSlots));
  try {
    keepEarlierRuns(path_, options.runsKept);
    fresh.moveTo(path_);
  } catch (...) {
    unmap();
    throw;
  }
  file_ = fresh.release();
}

TraceFile::~TraceFile() {
  sync();
  header().closed.store(1, std::memory_order_release);
  unmap();
  ::close(file_);
}

void TraceFile::map(int file, std::uint64_t ringSlots) {
  bytes_ = Layout::kRingOffset + ringSlots * Layout::kSlotBytes;
  // Space is taken now, so that a full file system is an error here and no bus error in a message.
  const int full = ::posix_fallocate(file, 0, static_cast<off_t>(bytes_));
  if (full != 0) {
    fail(path_, "cannot make room for the trace file", full,
         "make room on the file system, or give the ring fewer messages");
  }
  void* memory =
      ::mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, file, 0);
  if (memory == MAP_FAILED) {
    fail(path_, "cannot map the trace file", errno, "give the ring fewer messages");
  }
  memory_ = memory;
  mask_ = ringSlots - 1;
  ring_ = reinterpret_cast<Layout::Word*>(static_cast<char*>(memory) + Layout::kRingOffset);
  syncInterval_ = Clock::ticksPerSecond();

  const Clock::Pair start = Clock::now();
  Layout::FixedHeader fixed{Layout::kMagic,
                            Layout::kVersion,
                            static_cast<std::uint32_t>(::getpid()),
                            ringSlots,
                            start.ticks,
                            start.nanoseconds,
                            Clock::ticksPerSecond(),
                            0};
  std::uint64_t words[sizeof(fixed) / 8];
  std::memcpy(words, &fixed, sizeof(fixed));
  fixed.check = Layout::blockCheck(words, std::size(words) - 1);
  header().fixed = fixed;
  sync();
}

void TraceFile::unmap() noexcept {
  ::munmap(memory_, bytes_);
  memory_ = nullptr;
}

void TraceFile::sync() noexcept {
  const Clock::Pair now = Clock::now();
  Layout::Header& all = header();
  all.syncTicks.store(now.ticks, std::memory_order_release);
  all.syncNanoseconds.store(now.nanoseconds, std::memory_order_release);
  all.syncCheck.store(Layout::syncCheck(now.ticks, now.nanoseconds), std::memory_order_release);
  lastSync_ = now.ticks;
}

std::size_t TraceFile::descriptors() const {
  const std::lock_guard lock(mutex_);
  return descriptors_;
}

std::size_t TraceFile::descriptorsLost() const {
  return header().descriptorsLost.load(std::memory_order_relaxed);
}

void TraceFile::descriptorIs(std::int32_t id, const std::vector<std::uint64_t>& block) {
  const std::lock_guard lock(mutex_);
  if (knows(id)) {
    return;
  }
  Layout::Header& all = header();
  const std::uint64_t used = all.descriptorBytes.load(std::memory_order_relaxed);
  const std::size_t bytes = block.size() * 8;
  if (bytes <= Layout::kDescriptorBytes - used) {
    std::memcpy(static_cast<char*>(memory_) + Layout::kHeaderBytes + used, block.data(), bytes);
    all.descriptorBytes.store(used + bytes, std::memory_order_release);
  } else {
    all.descriptorsLost.store(all.descriptorsLost.load(std::memory_order_relaxed) + 1,
                              std::memory_order_relaxed);
  }
  ++descriptors_;
  const auto bit = static_cast<std::uint32_t>(id);
  known_[bit / 64].fetch_or(std::uint64_t{1} << (bit % 64), std::memory_order_release);
}

std::int32_t TraceFile::newId() {
  const std::int32_t id = lastId.fetch_add(1, std::memory_order_relaxed) + 1;
  Lumen::assertThat(id > 0 && static_cast<std::uint32_t>(id) < kMostIds, "id < kMostIds");
  return id;
}

}  // namespace BriskTrace
