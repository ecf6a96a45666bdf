#pragma once

#include "Asic/SwTableId.h"
#include "Brio/FixedString.h"
#include "KelpEmServer/Export.h"
#include "KelpEmServer/TableLinkages.h"
#include "KelpEmServer/TableSpec.h"
#include "KelpEmServer/WrapperResources.h"
#include "KelpTunnelNiLib/TableBases.h"
#include "KelpTunnelNiLib/TableQuilts.h"

// The catalogue of tables: the only place in which they differ. A further table is one more type
// here, and its name in the list at the end and in the list of KelpEmServer/CMakeLists.txt.

namespace KelpEmServer {

// The same for all tables.
inline constexpr const char* kGroupName = "KelpEmServerGroup";
inline constexpr const char* kAgentName = "KelpTunnelNi";
inline constexpr const char* kTableNamespace = "KelpEmServer";

// Egress encapsulation by forwarding object.
struct KELP_EM_EXPORT EsemFodo {
  static constexpr Brio::FixedString name{"EsemFodo"};
  static constexpr Asic::SwTableId tableId{0x29080401};
  static constexpr CollectionSalts salts{1904530516, 2512209022, 2229673195,
                                         1660372660, 1261258012, 3087296952};

  using Entry = KelpTunnelNiLib::EsemFodoEntry;
  using ConfigQuilt = KelpTunnelNiLib::EsemFodoConfigQuilt;
  using EntryLogQuilt = KelpTunnelNiLib::EsemFodoEntryLogQuilt;
  using WrapperResources = NoResources;
  using Linkages = NoLinkages;
};

// Egress encapsulation by forwarding object and VLAN domain.
struct KELP_EM_EXPORT EsemFodoVd {
  static constexpr Brio::FixedString name{"EsemFodoVd"};
  static constexpr Asic::SwTableId tableId{0x29080402};
  static constexpr CollectionSalts salts{914509270,  3055446949, 597283485,
                                         1793141911, 455843947,  3967469741};

  using Entry = KelpTunnelNiLib::EsemFodoVdEntry;
  using ConfigQuilt = KelpTunnelNiLib::EsemFodoVdConfigQuilt;
  using EntryLogQuilt = KelpTunnelNiLib::EsemFodoVdEntryLogQuilt;
  using WrapperResources = VlanEditAndRemarkResources;
  using Linkages = VlanEditAndRemarkLinkages<LinkageSalts{1387900387, 2760113449},
                                             LinkageSalts{1832999693, 406583741}>;
};

// Ingress classification of frames with one VLAN tag.
struct KELP_EM_EXPORT Isem1Tag {
  static constexpr Brio::FixedString name{"Isem1Tag"};
  static constexpr Asic::SwTableId tableId{0x29080403};
  static constexpr CollectionSalts salts{1931543687, 3747430163, 1564697678,
                                         4199456661, 782731820,  20677251};

  using Entry = KelpTunnelNiLib::Isem1TagEntry;
  using ConfigQuilt = KelpTunnelNiLib::Isem1TagConfigQuilt;
  using EntryLogQuilt = KelpTunnelNiLib::Isem1TagEntryLogQuilt;
  using WrapperResources = InLif01Resources<KelpTunnelNiLib::Isem1TagLogEntry>;
  using Linkages = InLifIndexLinkages<LinkageSalts{1653092364, 3760285788}>;
};

// Ingress classification of frames with two VLAN tags.
struct KELP_EM_EXPORT Isem2Tag {
  static constexpr Brio::FixedString name{"Isem2Tag"};
  static constexpr Asic::SwTableId tableId{0x29080404};
  static constexpr CollectionSalts salts{934281991,  3842031071, 2005819766,
                                         1577981130, 3660496899, 1420100940};

  using Entry = KelpTunnelNiLib::Isem2TagEntry;
  using ConfigQuilt = KelpTunnelNiLib::Isem2TagConfigQuilt;
  using EntryLogQuilt = KelpTunnelNiLib::Isem2TagEntryLogQuilt;
  using WrapperResources = InLif01Resources<KelpTunnelNiLib::Isem2TagLogEntry>;
  using Linkages = InLifIndexLinkages<LinkageSalts{4087234731, 1146972053}>;
};

// Ingress classification of frames inside a tunnel.
struct KELP_EM_EXPORT IsemInnerEth {
  static constexpr Brio::FixedString name{"IsemInnerEth"};
  static constexpr Asic::SwTableId tableId{0x29080405};
  static constexpr CollectionSalts salts{673162997,  2503627092, 2823120889,
                                         2349494439, 1283706683, 379220927};

  using Entry = KelpTunnelNiLib::IsemInnerEthEntry;
  using ConfigQuilt = KelpTunnelNiLib::IsemInnerEthConfigQuilt;
  using EntryLogQuilt = KelpTunnelNiLib::IsemInnerEthEntryLogQuilt;
  using WrapperResources = NoResources;
  using Linkages = NoLinkages;
};

// Ingress classification of frames with an MPLS label.
struct KELP_EM_EXPORT IsemMpls {
  static constexpr Brio::FixedString name{"IsemMpls"};
  static constexpr Asic::SwTableId tableId{0x29080406};
  static constexpr CollectionSalts salts{1284431779, 229840857,  499133991,
                                         3072251786, 1485765582, 2476401202};

  using Entry = KelpTunnelNiLib::IsemMplsEntry;
  using ConfigQuilt = KelpTunnelNiLib::IsemMplsConfigQuilt;
  using EntryLogQuilt = KelpTunnelNiLib::IsemMplsEntryLogQuilt;
  using WrapperResources = InLif023Resources<KelpTunnelNiLib::IsemMplsLogEntry>;
  using Linkages = InLifIndexLinkages<LinkageSalts{3789435637, 624177103}>;
};

// Ingress classification of frames without a VLAN tag.
struct KELP_EM_EXPORT IsemUntagged {
  static constexpr Brio::FixedString name{"IsemUntagged"};
  static constexpr Asic::SwTableId tableId{0x29080407};
  static constexpr CollectionSalts salts{3896821602, 3361312978, 1723950311,
                                         1582767786, 1352122432, 1626107314};

  using Entry = KelpTunnelNiLib::IsemUntaggedEntry;
  using ConfigQuilt = KelpTunnelNiLib::IsemUntaggedConfigQuilt;
  using EntryLogQuilt = KelpTunnelNiLib::IsemUntaggedEntryLogQuilt;
  using WrapperResources = InLif01Resources<KelpTunnelNiLib::IsemUntaggedLogEntry>;
  using Linkages = InLifIndexLinkages<LinkageSalts{2557041995, 2903641817}>;
};

// Cross-connect of an attachment circuit.
struct KELP_EM_EXPORT LemVpwsAc {
  static constexpr Brio::FixedString name{"LemVpwsAc"};
  static constexpr Asic::SwTableId tableId{0x29080408};
  static constexpr CollectionSalts salts{2962828239, 1576466455, 1583104374,
                                         66604104,   3332981459, 2352972908};

  using Entry = KelpTunnelNiLib::LemVpwsAcEntry;
  using ConfigQuilt = KelpTunnelNiLib::LemVpwsAcConfigQuilt;
  using EntryLogQuilt = KelpTunnelNiLib::LemVpwsAcEntryLogQuilt;
  using WrapperResources = NoResources;
  using Linkages = NoLinkages;
};

// All tables, for whatever goes over them: Visit is called with a TypeTag of each.
template <class T>
struct TypeTag {
  using Table = T;
};
template <TableSpec... Tables>
struct TableList {
  static constexpr std::size_t size() noexcept { return sizeof...(Tables); }
  template <class Visit>
  static void forEach(Visit&& visit) {
    (visit(TypeTag<Tables>{}), ...);
  }
};
using AllTables = TableList<EsemFodo, EsemFodoVd, Isem1Tag, Isem2Tag, IsemInnerEth, IsemMpls,
                            IsemUntagged, LemVpwsAc>;

}  // namespace KelpEmServer
