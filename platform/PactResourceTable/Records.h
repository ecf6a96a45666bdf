#pragma once

#include <compare>
#include <cstdint>
#include <tuple>

#include "Asic/EntryState.h"
#include "Asic/LogVersion.h"
#include "Asic/SwTableId.h"
#include "Asic/UnitId.h"
#include "Brio/Fields.h"
#include "BrioQuilt/CollectionEntity.h"
#include "Lumen/String.h"

// What a resource table keeps in the store, in three collections below
// resourceTable/NAMESPACE/NAME:
//
//   resources   each resource by its key: its number, the index that it was given, its state
//   holds       which client holds which resource, and what version of it the client has seen
//   releases    indexes that a client has given up while the chip may still use them

namespace PactResourceTable {

// A client: the software table, of one unit, that asks.
struct ClientId {
  Asic::SwTableId tableId;
  Asic::UnitId unit;
  std::uint16_t reserved = 0;

  friend constexpr auto operator<=>(const ClientId&, const ClientId&) = default;

  static constexpr auto fields() {
    return std::tuple{Brio::field("tableId", &ClientId::tableId),
                      Brio::field("unit", &ClientId::unit)};
  }
};

template <class Key>
struct ResourceRecord {
  using QuiltKey = Key;

  Key key{};
  std::uint32_t number = 0;  // of the resource, for its holds
  std::uint32_t index = 0;   // 0: none
  std::uint32_t updateVersion = 0;
  std::uint16_t clientData = 0;
  Asic::EntryState state = Asic::EntryState::entryStateUnresolved;
  std::uint8_t reserved = 0;

  [[nodiscard]] const QuiltKey& quiltKey() const noexcept { return key; }

  static constexpr auto fields() {
    return std::tuple{Brio::field("key", &ResourceRecord::key),
                      Brio::field("number", &ResourceRecord::number),
                      Brio::field("index", &ResourceRecord::index),
                      Brio::field("updateVersion", &ResourceRecord::updateVersion),
                      Brio::field("clientData", &ResourceRecord::clientData),
                      Brio::field("state", &ResourceRecord::state)};
  }
};
template <class Key>
using ResourceQuilt = BrioQuilt::CollectionEntity<ResourceRecord<Key>>;

// A number and a client: of a hold the resource's, of a release the index.
struct UseKey {
  std::uint32_t number = 0;
  ClientId client;

  friend constexpr auto operator<=>(const UseKey&, const UseKey&) = default;
};
static_assert(sizeof(UseKey) == 12);

struct HoldRecord {
  using QuiltKey = UseKey;

  UseKey key;
  std::uint32_t acked = 0;  // the update version that the client has worked off

  [[nodiscard]] const QuiltKey& quiltKey() const noexcept { return key; }

  static constexpr auto fields() {
    return std::tuple{Brio::field("key", &HoldRecord::key),
                      Brio::field("acked", &HoldRecord::acked)};
  }
};
using HoldQuilt = BrioQuilt::CollectionEntity<HoldRecord>;

struct ReleaseRecord {
  using QuiltKey = UseKey;

  // The client has not said yet from which change on it does without the index.
  static constexpr Asic::LogVersion kNotYet{~std::uint64_t{0}};

  UseKey key;
  std::uint32_t reserved = 0;
  Asic::LogVersion version;  // of the client's table: when that is on the chip, the index is free

  [[nodiscard]] const QuiltKey& quiltKey() const noexcept { return key; }

  static constexpr auto fields() {
    return std::tuple{Brio::field("key", &ReleaseRecord::key),
                      Brio::field("version", &ReleaseRecord::version)};
  }
};
using ReleaseQuilt = BrioQuilt::CollectionEntity<ReleaseRecord>;

// Where a collection of a resource table lies.
[[nodiscard]] inline Lumen::String collectionPath(const Lumen::String& tableNamespace,
                                                  const Lumen::String& tableName,
                                                  const char* collection) {
  return "resourceTable/" + tableNamespace + "/" + tableName + "/" + collection;
}
inline constexpr const char* kResources = "resources";
inline constexpr const char* kHolds = "holds";
inline constexpr const char* kReleases = "releases";

inline constexpr const char* kHoldQuiltType = "PactResourceTable::HoldQuilt";
inline constexpr const char* kReleaseQuiltType = "PactResourceTable::ReleaseQuilt";

}  // namespace PactResourceTable
