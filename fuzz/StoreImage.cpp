#include "fuzz/StoreImage.h"

#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "BrioQuilt/CollectionEntity.h"
#include "BrioSharedMem/EntityManager.h"
#include "BrioSharedMem/EntityPath.h"
#include "BrioSharedMem/EntityType.h"
#include "KelpEmServer/KelpConstants.h"
#include "KelpEmServer/MountQuilt.h"
#include "KelpEmServer/TableCatalogue.h"
#include "KelpQos/EgressRemarkProfileResourceTable.h"
#include "KelpTunnelNiLib/ResourceTables.h"
#include "PactResourceTable/Records.h"
#include "Quilt/Chains.h"
#include "Quilt/Crc32c.h"
#include "SampleEntries.h"
#include "common/StoreReader.h"

namespace Fuzz {
namespace {

// Few buckets, so that their chains are long.
constexpr std::uint32_t kCapacity = 16;
constexpr std::uint64_t kEntries = 12;
constexpr std::uint64_t kReported = 8;

// The library has these beside the resource tables themselves, which nobody needs here.
template <class Kind>
using Registrar =
    BrioSharedMem::EntityTypeRegistrar<PactResourceTable::ResourceQuilt<typename Kind::Key>>;
const Registrar<KelpTunnelNiLib::InLifIndexKind> inLifs(
    KelpTunnelNiLib::InLifIndexKind::quiltTypeName);
const Registrar<KelpTunnelNiLib::EveResourceTableKind> vlanEdits(
    KelpTunnelNiLib::EveResourceTableKind::quiltTypeName);
const Registrar<KelpQos::EgressRemarkProfileKind> remarks(
    KelpQos::EgressRemarkProfileKind::quiltTypeName);

// The type of an entity's records.
template <class Record>
Record recordOf(const BrioQuilt::CollectionEntity<Record>& entity);

std::string bytesOf(const std::string& name) {
  std::ifstream file(name, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Takes the generation and the words from the bytes of the slot.
template <class Record>
void sealSlot(const Quilt::Geometry& geometry, std::string& bytes, std::uint32_t slot) {
  using Slot = typename Quilt::Chains<Record>::RecordSlot;
  const std::size_t at = geometry.slotsOffset + std::size_t{slot} * sizeof(Slot);
  if (at + sizeof(Slot) > bytes.size()) {
    return;
  }
  std::uint32_t generation = 0;
  std::memcpy(&generation, &bytes[at + offsetof(Slot, generation)], sizeof generation);
  const std::uint32_t checksum = Quilt::Chains<Record>::checksumOver(
      generation,
      [&](std::size_t i) {
        std::uint64_t word = 0;
        std::memcpy(&word, &bytes[at + offsetof(Slot, words) + 8 * i], sizeof word);
        return word;
      },
      [](std::size_t, std::uint64_t) {});
  std::memcpy(&bytes[at + offsetof(Slot, checksum)], &checksum, sizeof checksum);
}

}  // namespace

void sealConstants(Quilt::HeaderConstants& constants) {
  constexpr std::size_t kCovered = offsetof(Quilt::HeaderConstants, checksum);
  std::uint64_t words[(kCovered + 7) / 8] = {};
  std::memcpy(words, &constants, kCovered);
  constants.checksum = Quilt::Crc32c::extend(~0U, words, std::size(words));
}

void ImageFile::put(const std::string& content) const {
  std::ofstream file(name, std::ios::binary | std::ios::trunc);
  if (!file.write(content.data(), static_cast<std::streamsize>(content.size())).flush()) {
    throw std::runtime_error(name + " can't be written");
  }
}

StoreImage::StoreImage(const std::string& root, const std::string& name, bool used)
    : root_(root), name_(name) {
  BrioSharedMem::EntityManager::rootIs(name, root);
  const auto manager = BrioSharedMem::EntityManager::getEntityManager(name, false);
  makeTable<KelpEmServer::Isem1Tag>(used);
  makeTable<KelpEmServer::EsemFodoVd>(used);
  makeResources<KelpTunnelNiLib::InLifIndexKind>(used);
  if (used) {
    const auto status = mount<Asic::StatusQuilt>(
        Asic::Constants::groupStatusPath(Common::groupName()), Asic::kStatusQuiltType, "status");
    Asic::StatusQuiltEntry row;
    row.tableId = KelpEmServer::Isem1Tag::tableId;
    row.version = Asic::LogVersion{kReported};
    row.incarnation =
        Common::openLog<KelpEmServer::Isem1Tag>(*manager)->mapBase().file()->incarnation();
    status->map().recordIs(row);
    // One that no program knows.
    static_cast<void>(mount<Asic::StatusQuilt>("other/thing", Asic::kStatusQuiltType, "things"));
  }
  manager->entityDelAll();
  for (ImageFile& file : files_) {
    file.sound = bytesOf(file.name);
    file.bytes = file.sound;
  }
}

template <class Entity>
Lumen::Ptr<Entity> StoreImage::mount(const Lumen::String& path, const char* typeName,
                                     const char* collection) {
  using Record = decltype(recordOf(std::declval<Entity&>()));
  const auto manager = BrioSharedMem::EntityManager::getEntityManager(name_, false);
  const auto entity =
      KelpEmServer::mountQuilt<Entity>(manager, typeName, path, [&](BrioQuilt::MountInfo& info) {
        info.collectionInfoIs(BrioQuilt::CollectionInfo(collection, kCapacity, false));
      });
  const std::string base = manager->folder() + '/' + BrioSharedMem::encodedPath(path);
  const Quilt::Geometry geometry = entity->mapBase().file()->geometry();
  files_.push_back({base + Quilt::kFileSuffix,
                    {},
                    {},
                    geometry,
                    [geometry](std::string& bytes, std::uint32_t slot) {
                      sealSlot<Record>(geometry, bytes, slot);
                    }});
  files_.push_back({base + Quilt::kRegisterSuffix, {}, {}, {}, nullptr});
  return entity;
}

template <class T>
void StoreImage::makeTable(bool used) {
  using Constants = KelpEmServer::KelpConstants<T>;
  using LogRecord = typename T::EntryLogQuilt::Record;
  using ConfigRecord = typename T::ConfigQuilt::Record;
  const auto log = mount<typename T::EntryLogQuilt>(
      Constants::tableEntryLogQuiltPath(),
      KelpEmServer::kTextOfTable<T, "KelpTunnelNiLib::", "EntryLogQuilt">.c_str(),
      "entryLogConfig");
  const auto needed =
      mount<Asic::NeededQuilt>(Asic::Constants::groupNeededPath(Common::groupName(), T::tableId),
                               Asic::kNeededQuiltType, Asic::kNeededCollection);
  std::uint64_t version = 0;
  for (std::uint16_t unit = 0; unit < 2; ++unit) {
    const auto config = mount<typename T::ConfigQuilt>(
        Constants::configQuiltPath(Asic::UnitId{unit}),
        KelpEmServer::kTextOfTable<T, "KelpTunnelNiLib::", "ConfigQuilt">.c_str(),
        "swTableEntries");
    for (std::uint64_t i = 0; used && i < kEntries; ++i) {
      const auto key = TestSupport::sampleKey<typename T::Entry::Key>(i);
      const auto entry = TestSupport::sampleEntry<typename T::Entry>(key, i);
      const Asic::LogVersion at{++version};
      const bool deleted = i == 5;
      log->collectionControl()->announcedIs(version);
      log->collectionControl()->scratchpadIs(version);
      config->swTableEntriesIs(ConfigRecord(entry, at, deleted));
      log->entryLogConfigIs(LogRecord(at, entry.logEntry, Asic::UnitId{unit},
                                      deleted ? LogRecord::kEntryDeleted : std::uint8_t{0}));
      log->collectionControl()->publishedIs(version);
    }
  }
  if (!used) {
    return;
  }
  Asic::NeededQuiltEntry record;
  record.version = Asic::LogVersion{kReported + 2};
  record.count = 1;
  record.needed[0] = {KelpEmServer::LemVpwsAc::tableId, 0, Asic::LogVersion{7}};
  needed->map().recordIs(record);
  // What is reported is cleaned away.
  for (std::uint64_t reported = 1; reported <= kReported; ++reported) {
    static_cast<void>(log->entryLogConfigDel(Asic::LogVersion{reported}));
  }
}

template <class Kind>
void StoreImage::makeResources(bool used) {
  using namespace PactResourceTable;
  using Key = typename Kind::Key;
  const auto resources = mount<ResourceQuilt<Key>>(Common::resourcePath<Kind>(kResources),
                                                   Kind::quiltTypeName, kResources);
  const auto holds = mount<HoldQuilt>(Common::resourcePath<Kind>(kHolds), kHoldQuiltType, kHolds);
  const auto releases =
      mount<ReleaseQuilt>(Common::resourcePath<Kind>(kReleases), kReleaseQuiltType, kReleases);
  const ClientId client{KelpEmServer::Isem1Tag::tableId, Asic::UnitId{0}};
  for (std::uint32_t number = 1; used && number <= kEntries; ++number) {
    ResourceRecord<Key> resource;
    TestSupport::spread(resource.key, number);
    resource.number = number;
    resource.index = number;
    resource.state = Asic::EntryState::entryStateSuccess;
    resources->map().recordIs(resource);
    HoldRecord hold;
    hold.key = {number, client};
    holds->map().recordIs(hold);
    if (number % 4 == 0) {
      ReleaseRecord release;
      release.key = {number + 100, client};
      release.version = number == 4 ? ReleaseRecord::kNotYet : Asic::LogVersion{number};
      releases->map().recordIs(release);
    }
  }
}

}  // namespace Fuzz
