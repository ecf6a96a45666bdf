#pragma once

#include <cstdint>

#include "Brio/FixedString.h"
#include "KelpEmServer/TableSpec.h"
#include "KelpQos/EgressRemarkProfileResourceTable.h"
#include "KelpTunnelNiLib/ResourceTables.h"
#include "Lumen/Ptr.h"

// What a linkage is to one kind of resource. A linkage class is made of a table and one of these:
//
//   name, smIndex, index  of the linkage class behind the table's name, and the places of its two
//                         classes in their type module
//   ResourceTable         whom it asks
//   startedText           what is reported when a table is linked
//   key(entry)            the resource key of an entry
//   handle(wrapper), handleIs(wrapper, handle)
//                         the handle of the resource in an entry in flight
//   request(client, entry, known)
//                         asks for the resource; `known` is the handle that it gave before, or null

namespace KelpEmServer {

// The salts of a linkage's collections.
struct LinkageSalts {
  std::uint32_t entryUsageSm;
  std::uint32_t entryUsage;
};

struct InLifIndexLinkageKind {
  static constexpr Brio::FixedString name{"KelpInLifIndexLinkage"};
  static constexpr unsigned smIndex = 0;
  static constexpr unsigned index = 1;
  using ResourceTable = KelpTunnelNiLib::InLifIndexResourceTable;
  using ResourceHandle = ResourceTable::ResourceHandle;
  using ResourceKey = ResourceTable::Key;

  static constexpr const char* startedText =
      " ResourceTable: KelpTunnelNiLib::InLifIndex.featureKelpEmServer started or restored with {} "
      "entries";

  template <class Entry>
  static const ResourceKey& key(const Entry& entry) noexcept {
    return entry.rsrcKeys.inLifIdxKey;
  }
  template <class Wrapper>
  static const Lumen::Ptr<const ResourceHandle>& handle(const Wrapper& wrapper) noexcept {
    return wrapper.inLifIdxKeyResPtr();
  }
  template <class Wrapper>
  static void handleIs(Wrapper& wrapper, const Lumen::Ptr<const ResourceHandle>& handle) noexcept {
    wrapper.inLifIdxKeyResPtrIs(handle);
  }
  template <class Entry>
  static Lumen::Ptr<const ResourceHandle> request(ResourceTable::ClientInstance& client,
                                                  const Entry& entry,
                                                  const ResourceHandle* known = nullptr) {
    return client.request(key(entry), nullptr, known);
  }
};

struct VlanEditProfileLinkageKind {
  static constexpr Brio::FixedString name{"KelpVlanEditProfileLinkage"};
  static constexpr unsigned smIndex = 0;
  static constexpr unsigned index = 1;
  using ResourceTable = KelpTunnelNiLib::EveResourceTableResourceTable;
  using ResourceHandle = ResourceTable::ResourceHandle;
  using ResourceKey = ResourceTable::Key;

  static constexpr const char* startedText =
      " ResourceTable: KelpTunnelNiLib::EveResourceTable.featureKelpEmServer started or restored "
      "with {} entries";

  template <class Entry>
  static const ResourceKey& key(const Entry& entry) noexcept {
    return entry.rsrcKeys.vlanEditProfileKey;
  }
  template <class Wrapper>
  static const Lumen::Ptr<const ResourceHandle>& handle(const Wrapper& wrapper) noexcept {
    return wrapper.vlanEditProfileKeyResPtr();
  }
  template <class Wrapper>
  static void handleIs(Wrapper& wrapper, const Lumen::Ptr<const ResourceHandle>& handle) noexcept {
    wrapper.vlanEditProfileKeyResPtrIs(handle);
  }
  template <class Entry>
  static Lumen::Ptr<const ResourceHandle> request(ResourceTable::ClientInstance& client,
                                                  const Entry& entry,
                                                  const ResourceHandle* known = nullptr) {
    return client.request(key(entry), nullptr, known);
  }
};

struct RemarkProfileLinkageKind {
  static constexpr Brio::FixedString name{"KelpRemarkProfileLinkage"};
  static constexpr unsigned smIndex = 2;
  static constexpr unsigned index = 3;
  using ResourceTable = KelpQos::EgressRemarkProfileResourceTable;
  using ResourceHandle = ResourceTable::ResourceHandle;
  using ResourceKey = ResourceTable::Key;

  static constexpr const char* startedText =
      " ResourceTable: KelpQos::EgressRemarkProfile.featureKelpEmServer started or restored with "
      "{} "
      "entries";

  template <class Entry>
  static const ResourceKey& key(const Entry& entry) noexcept {
    return entry.rsrcKeys.remarkProfileKey;
  }
  template <class Wrapper>
  static const Lumen::Ptr<const ResourceHandle>& handle(const Wrapper& wrapper) noexcept {
    return wrapper.remarkProfileKeyResPtr();
  }
  template <class Wrapper>
  static void handleIs(Wrapper& wrapper, const Lumen::Ptr<const ResourceHandle>& handle) noexcept {
    wrapper.remarkProfileKeyResPtrIs(handle);
  }
  // The type of remarking goes along.
  template <class Entry>
  static Lumen::Ptr<const ResourceHandle> request(ResourceTable::ClientInstance& client,
                                                  const Entry& entry,
                                                  const ResourceHandle* known = nullptr) {
    const KelpQos::EgressRemarkProfileClientData data{entry.rsrcKeys.remarkProfileType};
    return client.request(key(entry), data, nullptr, known);
  }
};

}  // namespace KelpEmServer
