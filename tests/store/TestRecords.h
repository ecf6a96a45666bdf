#pragma once

#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include "BrioQuilt/CollectionEntity.h"
#include "BrioSharedMem/EntityManager.h"

// Records as the tables have them, and a store in a folder of its own.

namespace StoreTest {

// A configuration record: 64 bytes, the key inside.
struct ConfigKey {
  std::uint32_t port = 0;
};
struct ConfigRecord {
  using QuiltKey = ConfigKey;

  std::uint64_t resource[4] = {0, 0, 0, 0x0006080000000000ULL};
  ConfigKey key;
  std::uint32_t payload[3] = {};
  std::uint64_t version = 0;
  std::uint8_t isDeleted = 0;
  std::uint8_t reserved[7] = {};

  [[nodiscard]] const QuiltKey& quiltKey() const noexcept { return key; }
  friend bool operator==(const ConfigRecord& a, const ConfigRecord& b) noexcept {
    return std::memcmp(&a, &b, sizeof a) == 0;
  }
  [[nodiscard]] static ConfigRecord of(std::uint32_t port, std::uint64_t version) {
    ConfigRecord made;
    made.key.port = port;
    made.version = version;
    made.payload[0] = static_cast<std::uint32_t>(version * 2654435761U);
    made.payload[1] = port ^ made.payload[0];
    return made;
  }
  // True of every record that of() makes and of no other.
  [[nodiscard]] bool consistent() const { return *this == of(key.port, version); }
};
static_assert(sizeof(ConfigRecord) == 64);

// A log record: 24 bytes, in the order of its versions.
struct LogRecord {
  using QuiltKey = std::uint64_t;
  static constexpr bool kQuiltOrderedByKey = true;
  static constexpr unsigned kQuiltHeadroom = 4;

  std::uint64_t version = 0;
  std::uint32_t payload[3] = {};
  std::uint16_t unitId = 0;
  std::uint8_t flags = 0;
  std::uint8_t reserved = 0;

  [[nodiscard]] const QuiltKey& quiltKey() const noexcept { return version; }
  friend bool operator==(const LogRecord& a, const LogRecord& b) noexcept {
    return std::memcmp(&a, &b, sizeof a) == 0;
  }
  [[nodiscard]] static LogRecord of(std::uint64_t version) {
    LogRecord made;
    made.version = version;
    made.payload[0] = static_cast<std::uint32_t>(version * 2246822519U);
    made.unitId = static_cast<std::uint16_t>(version % 7);
    return made;
  }
};
static_assert(sizeof(LogRecord) == 24);

// A key that is no whole number of words and lies off a word's boundary, in a record of odd size.
struct OddKey {
  std::uint16_t part[6] = {};

  friend auto operator<=>(const OddKey&, const OddKey&) = default;
};
struct OddRecord {
  using QuiltKey = OddKey;

  std::uint16_t before = 0;
  OddKey key;
  std::uint16_t value[4] = {};
  std::uint16_t tail = 0;

  [[nodiscard]] const QuiltKey& quiltKey() const noexcept { return key; }
};
static_assert(sizeof(OddRecord) == 24);

// A large record.
struct WideRecord {
  using QuiltKey = std::uint64_t;

  std::uint64_t key = 0;
  std::uint64_t value[73] = {};

  [[nodiscard]] const QuiltKey& quiltKey() const noexcept { return key; }
};
static_assert(sizeof(WideRecord) == 592);

class ConfigQuilt final : public BrioQuilt::CollectionEntity<ConfigRecord> {
 public:
  using CollectionEntity::CollectionEntity;

  void swTableEntriesIs(const ConfigRecord& record) { map().recordIs(record); }
  bool swTableEntriesDel(ConfigKey key) { return map().recordDel(key); }
};
using LogQuilt = BrioQuilt::CollectionEntity<LogRecord>;
using OddQuilt = BrioQuilt::CollectionEntity<OddRecord>;
using WideQuilt = BrioQuilt::CollectionEntity<WideRecord>;

inline const BrioSharedMem::EntityTypeRegistrar<ConfigQuilt> configType{"StoreTest::ConfigQuilt"};
inline const BrioSharedMem::EntityTypeRegistrar<LogQuilt> logType{"StoreTest::LogQuilt"};
inline const BrioSharedMem::EntityTypeRegistrar<OddQuilt> oddType{"StoreTest::OddQuilt"};
inline const BrioSharedMem::EntityTypeRegistrar<WideQuilt> wideType{"StoreTest::WideQuilt"};

template <class Entity>
constexpr const char* typeNameOf() {
  if constexpr (std::is_same_v<Entity, ConfigQuilt>) {
    return "StoreTest::ConfigQuilt";
  } else if constexpr (std::is_same_v<Entity, LogQuilt>) {
    return "StoreTest::LogQuilt";
  } else if constexpr (std::is_same_v<Entity, OddQuilt>) {
    return "StoreTest::OddQuilt";
  } else {
    return "StoreTest::WideQuilt";
  }
}

// A manager of its own in a folder of its own, which goes with it.
class Store {
 public:
  explicit Store(bool localMode = false, const std::string& root = freshRoot())
      : root_(root), name_("manager-" + std::filesystem::path(root).filename().string()) {
    BrioSharedMem::EntityManager::rootIs(name_, root_);
    manager_ = BrioSharedMem::EntityManager::getEntityManager(name_, localMode);
  }
  ~Store() {
    manager_->entityDelAll();
    std::error_code ignored;
    if (owner_ == ::getpid()) {
      std::filesystem::remove_all(root_, ignored);
    }
  }
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  static std::string freshRoot() {
    std::string root = "/dev/shm/kelp-store-test-XXXXXX";
    if (::mkdtemp(root.data()) == nullptr) {
      std::perror(root.c_str());
      std::abort();
    }
    return root;
  }

  template <class Entity>
  Lumen::Ptr<Entity> mount(const Lumen::String& path, std::uint32_t capacity) {
    BrioQuilt::MountInfo info(BrioQuilt::BrioQuiltType::collection);
    info.collectionInfoIs(BrioQuilt::CollectionInfo("records", capacity, false));
    const auto group = manager_->getMountGroup();
    group->mount(path, typeNameOf<Entity>(), info);
    group->doClose();
    return Lumen::dynamicPtrCast<Entity>(manager_->getEntity(path));
  }
  // As a new process would: gives up what is mounted, and mounts anew. The pointer goes first,
  // since it keeps the lock.
  template <class Entity>
  void remount(Lumen::Ptr<Entity>& entity, const Lumen::String& path, std::uint32_t capacity) {
    entity = nullptr;
    manager_->entityDel(path);
    entity = mount<Entity>(path, capacity);
  }
  template <class Entity>
  Lumen::Ptr<Entity> reader(const Lumen::String& path) const {
    return Lumen::dynamicPtrCast<Entity>(manager_->openReader(path, typeNameOf<Entity>()));
  }

  [[nodiscard]] const Lumen::Ptr<BrioSharedMem::EntityManager>& manager() const { return manager_; }
  [[nodiscard]] std::filesystem::path folder() const { return manager_->folder(); }
  [[nodiscard]] std::filesystem::path file(const std::string& path) const {
    return folder() / (path + ".quilt");
  }
  [[nodiscard]] const std::string& root() const { return root_; }

 private:
  std::string root_;
  std::string name_;
  pid_t owner_ = ::getpid();
  Lumen::Ptr<BrioSharedMem::EntityManager> manager_;
};

}  // namespace StoreTest
