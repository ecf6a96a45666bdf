#include "Floor.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "Quilt/Crc32c.h"

namespace StoreBench {
namespace {

using Word64 = std::atomic<std::uint64_t>;
using Word32 = std::atomic<std::uint32_t>;

constexpr std::uint32_t kLogBuckets = 1U << 20;

template <std::size_t Words>
struct Slot {
  Word64 next;
  Word32 generation;
  Word32 checksum;
  Word64 words[Words];
};

template <class Record>
struct Side {
  static constexpr std::size_t kWords = sizeof(Record) / 8;
  using SlotType = Slot<kWords>;

  Word64* heads = nullptr;
  SlotType* slots = nullptr;
  std::vector<std::uint32_t> free;

  // Fills a free slot; gives the link to it.
  std::uint64_t fill(const Record& record, std::uint64_t next) {
    const std::uint32_t index = free.back();
    free.pop_back();
    SlotType& slot = slots[index];
    const std::uint32_t generation = slot.generation.load(std::memory_order_relaxed) + 1;
    slot.generation.store(generation, std::memory_order_release);
    std::uint64_t words[kWords];
    std::memcpy(words, &record, sizeof record);
    for (std::size_t i = 0; i < kWords; ++i) {
      slot.words[i].store(words[i], std::memory_order_release);
    }
    slot.checksum.store(Quilt::Crc32c::extend(~generation, words, kWords),
                        std::memory_order_release);
    slot.next.store(next, std::memory_order_release);
    return static_cast<std::uint64_t>(generation) << 32 | index;
  }
};

std::uint32_t bucketOf(std::uint32_t key) {
  std::uint64_t state = (0x2545f4914f6cdd1dULL ^ key) * 0x9fb21c651e98df25ULL;
  state ^= state >> 32;
  return static_cast<std::uint32_t>((state * 0xd6e8feb86659fd93ULL) >> 48);
}

}  // namespace

struct Floor::Impl {
  void* base = nullptr;
  std::size_t bytes = 0;
  Word64* scratchpad = nullptr;
  Side<ConfigRecord> config;
  Side<LogRecord> log;

  static std::uint32_t keyIn(const Side<ConfigRecord>::SlotType& slot) {
    return static_cast<std::uint32_t>(slot.words[4].load(std::memory_order_acquire));
  }
};

Floor::Floor(const char* fileName) : impl_(std::make_unique<Impl>()) {
  const std::size_t heads = kKeys * 8 + kLogBuckets * 8;
  impl_->bytes =
      4096 + heads +
      (kKeys + 8) * (sizeof(Side<ConfigRecord>::SlotType) + sizeof(Side<LogRecord>::SlotType));
  const int fd = ::open(fileName, O_RDWR | O_CREAT | O_TRUNC, 0600);
  if (fd < 0 || ::posix_fallocate(fd, 0, static_cast<off_t>(impl_->bytes)) != 0) {
    std::perror(fileName);
    std::exit(1);
  }
  impl_->base =
      ::mmap(nullptr, impl_->bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, fd, 0);
  ::close(fd);
  auto* at = static_cast<std::byte*>(impl_->base);
  impl_->scratchpad = static_cast<Word64*>(static_cast<void*>(at));
  at += 4096;
  impl_->config.heads = static_cast<Word64*>(static_cast<void*>(at));
  at += kKeys * 8;
  impl_->log.heads = static_cast<Word64*>(static_cast<void*>(at));
  at += kLogBuckets * 8;
  impl_->config.slots = static_cast<Side<ConfigRecord>::SlotType*>(static_cast<void*>(at));
  at += (kKeys + 8) * sizeof(Side<ConfigRecord>::SlotType);
  impl_->log.slots = static_cast<Side<LogRecord>::SlotType*>(static_cast<void*>(at));
  for (std::uint32_t i = kKeys + 8; i-- > 0;) {
    impl_->config.free.push_back(i);
    impl_->log.free.push_back(i);
  }
}

Floor::~Floor() { ::munmap(impl_->base, impl_->bytes); }

void Floor::write(const ConfigRecord& config, const LogRecord& log) {
  auto& side = impl_->config;
  const std::uint32_t key = config.key.port;
  Word64* at = &side.heads[bucketOf(key)];
  std::uint64_t link = at->load(std::memory_order_relaxed);
  Side<ConfigRecord>::SlotType* replaced = nullptr;
  while (link != 0) {
    auto& slot = side.slots[static_cast<std::uint32_t>(link)];
    const std::uint32_t there = Impl::keyIn(slot);
    if (there >= key) {
      replaced = there == key ? &slot : nullptr;
      break;
    }
    at = &slot.next;
    link = at->load(std::memory_order_relaxed);
  }
  const std::uint64_t next =
      replaced != nullptr ? replaced->next.load(std::memory_order_relaxed) : link;
  at->store(side.fill(config, next), std::memory_order_release);
  if (replaced != nullptr) {
    side.free.push_back(static_cast<std::uint32_t>(link));
  }
  Word64& head = impl_->log.heads[log.version & (kLogBuckets - 1)];
  head.store(impl_->log.fill(log, head.load(std::memory_order_relaxed)), std::memory_order_release);
  impl_->scratchpad->store(log.version, std::memory_order_release);
}

const ConfigRecord* Floor::find(std::uint32_t key) const {
  const auto& side = impl_->config;
  std::uint64_t link = side.heads[bucketOf(key)].load(std::memory_order_acquire);
  while (link != 0) {
    const auto& slot = side.slots[static_cast<std::uint32_t>(link)];
    if (Impl::keyIn(slot) == key) {
      std::uint64_t words[8];
      for (int i = 0; i < 8; ++i) {
        words[i] = slot.words[i].load(std::memory_order_acquire);
      }
      const bool good =
          slot.checksum.load(std::memory_order_relaxed) ==
          Quilt::Crc32c::extend(~slot.generation.load(std::memory_order_relaxed), words, 8);
      return good ? static_cast<const ConfigRecord*>(static_cast<const void*>(slot.words))
                  : nullptr;
    }
    link = slot.next.load(std::memory_order_acquire);
  }
  return nullptr;
}

bool Floor::copyOut(std::uint32_t key, ConfigRecord& out) const {
  const auto& side = impl_->config;
  std::uint64_t link = side.heads[bucketOf(key)].load(std::memory_order_acquire);
  while (link != 0) {
    const auto& slot = side.slots[static_cast<std::uint32_t>(link)];
    if (Impl::keyIn(slot) == key) {
      std::uint64_t words[8];
      for (int i = 0; i < 8; ++i) {
        words[i] = slot.words[i].load(std::memory_order_acquire);
      }
      const std::uint32_t checksum = slot.checksum.load(std::memory_order_acquire);
      const std::uint32_t generation = slot.generation.load(std::memory_order_acquire);
      std::memcpy(&out, words, sizeof out);
      return generation == link >> 32 && checksum == Quilt::Crc32c::extend(~generation, words, 8);
    }
    link = slot.next.load(std::memory_order_acquire);
  }
  return false;
}

void Floor::configDel(std::uint32_t key) {
  auto& side = impl_->config;
  Word64* at = &side.heads[bucketOf(key)];
  while (const std::uint64_t link = at->load(std::memory_order_relaxed)) {
    auto& slot = side.slots[static_cast<std::uint32_t>(link)];
    if (Impl::keyIn(slot) == key) {
      at->store(slot.next.load(std::memory_order_relaxed), std::memory_order_release);
      side.free.push_back(static_cast<std::uint32_t>(link));
      return;
    }
    at = &slot.next;
  }
}

void Floor::logDel(std::uint64_t version) {
  auto& side = impl_->log;
  Word64& head = side.heads[version & (kLogBuckets - 1)];
  const std::uint64_t link = head.load(std::memory_order_relaxed);
  const auto& slot = side.slots[static_cast<std::uint32_t>(link)];
  if (link != 0 && slot.words[0].load(std::memory_order_relaxed) == version) {
    head.store(slot.next.load(std::memory_order_relaxed), std::memory_order_release);
    side.free.push_back(static_cast<std::uint32_t>(link));
  }
}

std::uint64_t Floor::walk() const {
  const auto& side = impl_->config;
  std::uint64_t sum = 0;
  for (std::uint32_t bucket = 0; bucket < kKeys; ++bucket) {
    std::uint64_t link = side.heads[bucket].load(std::memory_order_acquire);
    while (link != 0) {
      const auto& slot = side.slots[static_cast<std::uint32_t>(link)];
      ConfigRecord record;
      std::uint64_t words[8];
      for (int i = 0; i < 8; ++i) {
        words[i] = slot.words[i].load(std::memory_order_acquire);
      }
      const std::uint32_t generation = slot.generation.load(std::memory_order_acquire);
      std::memcpy(&record, words, sizeof record);
      if (slot.checksum.load(std::memory_order_relaxed) ==
          Quilt::Crc32c::extend(~generation, words, 8)) {
        sum += record.version + record.key.port;
      }
      link = slot.next.load(std::memory_order_acquire);
    }
  }
  return sum;
}

}  // namespace StoreBench
