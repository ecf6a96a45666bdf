#pragma once

#include "Asic/LogVersion.h"
#include "BrioQuilt/CollectionEntity.h"
#include "KelpTunnelNiLib/EsemFodoRecords.h"
#include "KelpTunnelNiLib/EsemFodoVdRecords.h"
#include "KelpTunnelNiLib/Isem1TagRecords.h"
#include "KelpTunnelNiLib/Isem2TagRecords.h"
#include "KelpTunnelNiLib/IsemInnerEthRecords.h"
#include "KelpTunnelNiLib/IsemMplsRecords.h"
#include "KelpTunnelNiLib/IsemUntaggedRecords.h"
#include "KelpTunnelNiLib/LemVpwsAcRecords.h"

namespace KelpTunnelNiLib {

// The configuration collection of one unit of a table.
template <class RecordT>
class ConfigQuilt final : public BrioQuilt::CollectionEntity<RecordT> {
 public:
  using Record = RecordT;
  using BrioQuilt::CollectionEntity<Record>::CollectionEntity;
  static_assert(Brio::HasFields<Record>, "the place of each field is part of the layout");

  [[nodiscard]] Quilt::QuiltMap<Record>& swTableEntries() { return this->map(); }
  [[nodiscard]] const Quilt::QuiltMap<Record>& swTableEntries() const { return this->map(); }
  // Adds the record, or overwrites the one with its key. Asserts that there is room.
  void swTableEntriesIs(const Record& record) { this->map().recordIs(record); }
  // False if there was none.
  bool swTableEntriesDel(const typename Record::QuiltKey& key) {
    return this->map().recordDel(key);
  }
};

// The change log of a table.
template <class RecordT>
class EntryLogQuilt final : public BrioQuilt::CollectionEntity<RecordT> {
 public:
  using Record = RecordT;
  using BrioQuilt::CollectionEntity<Record>::CollectionEntity;
  static_assert(Brio::HasFields<Record>, "the place of each field is part of the layout");

  [[nodiscard]] Quilt::QuiltMap<Record>& entryLogConfig() { return this->map(); }
  [[nodiscard]] const Quilt::QuiltMap<Record>& entryLogConfig() const { return this->map(); }
  // Adds the record under its version. Asserts that there is room.
  void entryLogConfigIs(const Record& record) { this->map().recordIs(record); }
  // False if there was none.
  bool entryLogConfigDel(Asic::LogVersion version) { return this->map().recordDel(version); }
};

using EsemFodoConfigQuilt = ConfigQuilt<EsemFodoConfigQuiltEntry>;
using EsemFodoVdConfigQuilt = ConfigQuilt<EsemFodoVdConfigQuiltEntry>;
using Isem1TagConfigQuilt = ConfigQuilt<Isem1TagConfigQuiltEntry>;
using Isem2TagConfigQuilt = ConfigQuilt<Isem2TagConfigQuiltEntry>;
using IsemInnerEthConfigQuilt = ConfigQuilt<IsemInnerEthConfigQuiltEntry>;
using IsemMplsConfigQuilt = ConfigQuilt<IsemMplsConfigQuiltEntry>;
using IsemUntaggedConfigQuilt = ConfigQuilt<IsemUntaggedConfigQuiltEntry>;
using LemVpwsAcConfigQuilt = ConfigQuilt<LemVpwsAcConfigQuiltEntry>;

using EsemFodoEntryLogQuilt = EntryLogQuilt<EsemFodoLogQuiltEntry>;
using EsemFodoVdEntryLogQuilt = EntryLogQuilt<EsemFodoVdLogQuiltEntry>;
using Isem1TagEntryLogQuilt = EntryLogQuilt<Isem1TagLogQuiltEntry>;
using Isem2TagEntryLogQuilt = EntryLogQuilt<Isem2TagLogQuiltEntry>;
using IsemInnerEthEntryLogQuilt = EntryLogQuilt<IsemInnerEthLogQuiltEntry>;
using IsemMplsEntryLogQuilt = EntryLogQuilt<IsemMplsLogQuiltEntry>;
using IsemUntaggedEntryLogQuilt = EntryLogQuilt<IsemUntaggedLogQuiltEntry>;
using LemVpwsAcEntryLogQuilt = EntryLogQuilt<LemVpwsAcLogQuiltEntry>;

}  // namespace KelpTunnelNiLib
