#pragma once

#include <cstdint>
#include <tuple>
#include <type_traits>

#include "Brio/Attributes.h"
#include "KelpEmServer/KelpResourceLinkage.h"
#include "Lumen/Ptr.h"

// The linkages of a table, in their order: one class per family of tables. All have the same
// members, which the table calls.
//
//   attributes<Table>()    the attributes of the family, for the list of the table
//   salts<L>()             the salts of one linkage's collections
//   forEachKind(visit)     calls visit(KindTag<L>) for each linkage
//   Of<T>                  what the table inherits: the linkages by name, linkageIs(linkage), and
//                          withLinkages(run), which calls run(linkage...)

namespace KelpEmServer {

template <class L>
struct KindTag {
  using Kind = L;
};

class NoLinkages {
 public:
  template <class Table>
  static constexpr auto attributes() {
    return std::tuple{};
  }
  template <class Visit>
  static void forEachKind(Visit&&) {}

  template <TableSpec T>
  class Of {
   public:
    template <class Run>
    decltype(auto) withLinkages(Run&& run) const {
      return run();
    }
  };
};

template <LinkageSalts kInLif>
class InLifIndexLinkages {
 public:
  template <class L>
  static constexpr LinkageSalts salts() {
    static_assert(std::is_same_v<L, InLifIndexLinkageKind>);
    return kInLif;
  }
  template <class Table>
  static constexpr auto attributes() {
    return std::tuple{Brio::stored("inLifIndexLinkage", &Table::inLifIndexLinkage)
                          .writtenBy(&Table::inLifIndexLinkageIs)};
  }
  template <class Visit>
  static void forEachKind(Visit&& visit) {
    visit(KindTag<InLifIndexLinkageKind>{});
  }

  template <TableSpec T>
  class Of {
   public:
    using InLifIndexLinkage = KelpResourceLinkage<T, InLifIndexLinkageKind>;

    // Null until the table has been linked.
    [[nodiscard]] const Lumen::Ptr<InLifIndexLinkage>& inLifIndexLinkage() const noexcept {
      return inLifIndexLinkage_;
    }
    void inLifIndexLinkageIs(const Lumen::Ptr<InLifIndexLinkage>& linkage) {
      using Table = KelpSwTable<T>;
      Brio::attributeIs(*static_cast<Table&>(*this).publisher(),
                        Brio::fieldId<Table>("inLifIndexLinkage"), inLifIndexLinkage_, linkage);
    }
    void linkageIs(const Lumen::Ptr<InLifIndexLinkage>& linkage) { inLifIndexLinkageIs(linkage); }
    template <class Run>
    decltype(auto) withLinkages(Run&& run) const {
      return run(inLifIndexLinkage_.get());
    }

   private:
    Lumen::Ptr<InLifIndexLinkage> inLifIndexLinkage_;
  };
};

template <LinkageSalts kVlanEdit, LinkageSalts kRemark>
class VlanEditAndRemarkLinkages {
 public:
  template <class L>
  static constexpr LinkageSalts salts() {
    return std::is_same_v<L, VlanEditProfileLinkageKind> ? kVlanEdit : kRemark;
  }
  template <class Table>
  static constexpr auto attributes() {
    return std::tuple{Brio::stored("vlanEditProfileLinkage", &Table::vlanEditProfileLinkage)
                          .writtenBy(&Table::vlanEditProfileLinkageIs),
                      Brio::stored("remarkProfileLinkage", &Table::remarkProfileLinkage)
                          .writtenBy(&Table::remarkProfileLinkageIs)};
  }
  template <class Visit>
  static void forEachKind(Visit&& visit) {
    visit(KindTag<VlanEditProfileLinkageKind>{});
    visit(KindTag<RemarkProfileLinkageKind>{});
  }

  template <TableSpec T>
  class Of {
   public:
    using VlanEditProfileLinkage = KelpResourceLinkage<T, VlanEditProfileLinkageKind>;
    using RemarkProfileLinkage = KelpResourceLinkage<T, RemarkProfileLinkageKind>;

    // Null until the table has been linked.
    [[nodiscard]] const Lumen::Ptr<VlanEditProfileLinkage>& vlanEditProfileLinkage()
        const noexcept {
      return vlanEditProfileLinkage_;
    }
    void vlanEditProfileLinkageIs(const Lumen::Ptr<VlanEditProfileLinkage>& linkage) {
      using Table = KelpSwTable<T>;
      Brio::attributeIs(*static_cast<Table&>(*this).publisher(),
                        Brio::fieldId<Table>("vlanEditProfileLinkage"), vlanEditProfileLinkage_,
                        linkage);
    }
    void linkageIs(const Lumen::Ptr<VlanEditProfileLinkage>& linkage) {
      vlanEditProfileLinkageIs(linkage);
    }
    [[nodiscard]] const Lumen::Ptr<RemarkProfileLinkage>& remarkProfileLinkage() const noexcept {
      return remarkProfileLinkage_;
    }
    void remarkProfileLinkageIs(const Lumen::Ptr<RemarkProfileLinkage>& linkage) {
      using Table = KelpSwTable<T>;
      Brio::attributeIs(*static_cast<Table&>(*this).publisher(),
                        Brio::fieldId<Table>("remarkProfileLinkage"), remarkProfileLinkage_,
                        linkage);
    }
    void linkageIs(const Lumen::Ptr<RemarkProfileLinkage>& linkage) {
      remarkProfileLinkageIs(linkage);
    }
    template <class Run>
    decltype(auto) withLinkages(Run&& run) const {
      return run(vlanEditProfileLinkage_.get(), remarkProfileLinkage_.get());
    }

   private:
    Lumen::Ptr<VlanEditProfileLinkage> vlanEditProfileLinkage_;
    Lumen::Ptr<RemarkProfileLinkage> remarkProfileLinkage_;
  };
};

}  // namespace KelpEmServer
