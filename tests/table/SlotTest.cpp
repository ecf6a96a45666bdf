#include <gmock/gmock.h>

#include <dlfcn.h>
#include <elf.h>
#include <link.h>

#include <cstddef>
#include <cstring>

#include "TableTest.h"

// Agents and features are built against the order of the virtual operations and of the attributes.
// Neither may change. The slots are those of the Itanium C++ ABI.

namespace {

// The slot that a pointer to a virtual operation goes through.
template <class Function>
std::size_t slotOf(Function function) {
  std::ptrdiff_t words[2];
  static_assert(sizeof(Function) == sizeof(words));
  std::memcpy(words, &function, sizeof(words));
#if defined(__aarch64__) || defined(__arm__)
  const bool isVirtual = (words[1] & 1) != 0;
  const std::ptrdiff_t offset = words[0];
#else
  const bool isVirtual = (words[0] & 1) != 0;
  const std::ptrdiff_t offset = words[0] - 1;
#endif
  return isVirtual ? static_cast<std::size_t>(offset) / sizeof(void*) : 9999;
}

// The number of slots of an object's class, from the size of its table of virtual functions.
std::size_t slotsOf(const Lumen::Node& object) {
  void* vtable = nullptr;
  std::memcpy(&vtable, static_cast<const void*>(&object), sizeof(vtable));
  Dl_info info{};
  ElfW(Sym)* symbol = nullptr;
  if (dladdr1(vtable, &info, reinterpret_cast<void**>(&symbol), RTLD_DL_SYMENT) == 0 ||
      symbol == nullptr) {
    return 0;
  }
  // Offset to top and type information stand before the first slot.
  return symbol->st_size / sizeof(void*) - 2;
}

template <class T>
class VirtualSlots : public TestSupport::TableTest<T> {};
TYPED_TEST_SUITE(VirtualSlots, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(VirtualSlots, OfTheSoftwareTable) {
  using Table = typename TestFixture::Table;
  using Key = typename TestFixture::Key;
  using Iterator = typename Table::EntryIteratorConst;
  EXPECT_EQ(slotOf(&Table::lastUserGone), 2U);
  EXPECT_EQ(slotOf(&Table::publisher), 3U);
  EXPECT_EQ(slotOf(&Table::typeData), 4U);
  EXPECT_EQ(slotOf(&Table::handleParent), 5U);
  EXPECT_EQ(slotOf(&Table::doCreateHwTable), 6U);
  EXPECT_EQ(slotOf(&Table::doCreateHwTableResponse), 7U);
  EXPECT_EQ(slotOf(&Table::reconcile), 8U);
  EXPECT_EQ(slotOf(&Table::tableStatusVersion), 9U);
  EXPECT_EQ(slotOf(&Table::hasPendingHwWrites), 10U);
  EXPECT_EQ(slotOf(&Table::mark), 11U);
  EXPECT_EQ(slotOf(&Table::sweep), 12U);
  EXPECT_EQ(slotOf(&Table::entryWrite), 13U);
  EXPECT_EQ(slotOf(&Table::entryWriteWithResponseHandler), 14U);
  EXPECT_EQ(slotOf(&Table::entryRemove), 15U);
  EXPECT_EQ(slotOf(&Table::entryRemoveWithResponseHandler), 16U);
  EXPECT_EQ(slotOf(&Table::entryRemoveAll), 17U);
  EXPECT_EQ(slotOf(&Table::entryRemoveAllWithResponseHandler), 18U);
  EXPECT_EQ(slotOf(&Table::entryRead), 19U);
  EXPECT_EQ(slotOf(&Table::entry), 20U);
  EXPECT_EQ(slotOf(&Table::entryHas), 21U);
  EXPECT_EQ(slotOf(&Table::entrys), 22U);
  EXPECT_EQ(slotOf(static_cast<Iterator (Table::*)(const Key&) const>(&Table::entryIteratorConst)),
            23U);
  EXPECT_EQ(slotOf(static_cast<Iterator (Table::*)() const>(&Table::entryIteratorConst)), 24U);
  EXPECT_EQ(slotOf(&Table::initIterState), 25U);
  EXPECT_EQ(slotOf(&Table::initIterStateFromKey), 26U);
  EXPECT_EQ(slotsOf(*this->table()), 27U);
}

TYPED_TEST(VirtualSlots, TheTableOverridesItsWholeContract) {
  using Table = typename TestFixture::Table;
  using Handle = Lumen::Ptr<const typename Table::Base::EntryHandle>;
  using On = const Lumen::Ptr<const Asic::DependencyEntryHandle>&;
  using Key = typename TestFixture::Key;
  using Entry = typename TestFixture::Entry;
  static_assert(
      std::is_same_v<decltype(&Table::tableStatusVersion), void (Table::*)(Asic::LogVersion)>);
  static_assert(std::is_same_v<decltype(&Table::hasPendingHwWrites), bool (Table::*)() const>);
  static_assert(std::is_same_v<decltype(&Table::mark), void (Table::*)()>);
  static_assert(std::is_same_v<decltype(&Table::sweep), void (Table::*)()>);
  static_assert(std::is_same_v<decltype(&Table::entryWrite),
                               Handle (Table::*)(const Key&, const Entry&, On)>);
  static_assert(std::is_same_v<decltype(&Table::entryRemove), Handle (Table::*)(const Key&, On)>);
  static_assert(std::is_same_v<decltype(&Table::entryRemoveAll), void (Table::*)(On)>);
  static_assert(std::is_same_v<decltype(&Table::entryRead), Entry (Table::*)(const Key&) const>);
  static_assert(std::is_same_v<decltype(&Table::entry), Entry (Table::*)(const Key&) const>);
  static_assert(std::is_same_v<decltype(&Table::entrys), unsigned (Table::*)() const>);
  // Called through the base, they are the table's.
  const Lumen::Ptr<typename Table::Base> base = this->table();
  (void)base->entryWrite(this->key(1), this->entry(1), nullptr);
  EXPECT_TRUE(base->entryHas(this->key(1)));
  EXPECT_TRUE(base->hasPendingHwWrites());
  base->doCreateHwTable();
}

TYPED_TEST(VirtualSlots, OfTheEntryHandle) {
  using Handle = typename TestFixture::Table::EntryHandle;
  EXPECT_EQ(slotOf(&Handle::lastUserGone), 2U);
  EXPECT_EQ(slotOf(&Handle::publisher), 3U);
  EXPECT_EQ(slotOf(&Handle::typeData), 4U);
  EXPECT_EQ(slotOf(&Handle::handleEntryState), 5U);
  EXPECT_EQ(slotOf(&Handle::hwIndexForDependentField), 6U);
  EXPECT_EQ(slotOf(&Handle::handleIndexSuggestions), 7U);
  EXPECT_EQ(slotOf(&Handle::entryTableVersion), 8U);
  EXPECT_EQ(slotOf(&Handle::tableName), 9U);
  EXPECT_EQ(slotOf(&Handle::tableId), 10U);
  EXPECT_EQ(slotsOf(*this->handleIn(this->table(), 0)), 11U);
}

TYPED_TEST(VirtualSlots, OfTheWrapperTheResolverEntryAndTheHelper) {
  using Wrapper = typename TestFixture::Wrapper;
  using Resolver = typename TestFixture::Resolver;
  using Helper = typename TestFixture::Table::Helper;
  const auto table = this->table();
  this->write(table, 1);

  EXPECT_EQ(slotOf(&Wrapper::lastUserGone), 2U);
  EXPECT_EQ(slotOf(&Wrapper::publisher), 3U);
  EXPECT_EQ(slotOf(&Wrapper::typeData), 4U);
  EXPECT_EQ(slotsOf(*table->transientAddEntry(this->key(1))), 5U);

  EXPECT_EQ(slotOf(&Resolver::typeData), 4U);
  EXPECT_EQ(slotOf(&Resolver::isResolved), 5U);
  EXPECT_EQ(slotOf(&Resolver::commitEntry), 6U);
  EXPECT_EQ(slotsOf(*table->resolverQueue().front()), 7U);

  EXPECT_EQ(slotOf(&Helper::typeData), 4U);
  EXPECT_EQ(slotOf(&Helper::finalizeOnSuccess), 5U);
  EXPECT_EQ(slotOf(&Helper::finalizeOnFailure), 6U);
  EXPECT_EQ(slotOf(&Helper::finalizeOnResourceUpdate), 7U);
  EXPECT_EQ(slotsOf(*table->swTableHelper()), 8U);
}

template <class T>
class AttributeNumbers : public testing::Test {};
TYPED_TEST_SUITE(AttributeNumbers, TestSupport::AllTableTypes, TestSupport::TableTestName);

template <class Class>
unsigned number(std::string_view name) {
  return Class::attributes().idOf(name);
}

TYPED_TEST(AttributeNumbers, OfTheSoftwareTable) {
  using Table = KelpEmServer::KelpSwTable<TypeParam>;
  EXPECT_EQ(number<Table>("swTableHelper"), 898U);
  EXPECT_EQ(number<Table>("transientAddEntry"), 899U);
  EXPECT_EQ(number<Table>("transientRemoveEntry"), 900U);
  EXPECT_EQ(number<Table>("transientVersionForKey"), 901U);
  EXPECT_EQ(number<Table>("transientRemoveAllVersion"), 902U);
  EXPECT_EQ(number<Table>("getTableEntries_py"), 903U);
  EXPECT_EQ(number<Table>("entryLog"), 904U);
  EXPECT_EQ(number<Table>("groupResolver"), 905U);
  EXPECT_EQ(number<Table>("entryHandleInLog"), 907U);
  EXPECT_EQ(number<Table>("commitEntry"), 908U);
  EXPECT_EQ(number<Table>("updateEntry"), 909U);
  EXPECT_EQ(number<Table>("getNeededEntrySet"), 910U);
  EXPECT_EQ(number<Table>("isResolverEntryResolved"), 911U);
  EXPECT_EQ(number<Table>("setRsrcPtrs"), 912U);
  EXPECT_EQ(number<Table>("entryFromConfig"), 913U);
  EXPECT_EQ(number<Table>("restoreEntries"), 914U);
  EXPECT_EQ(number<Table>("clearTable"), 915U);
  EXPECT_EQ(number<Table>("markedKey"), 916U);
  EXPECT_EQ(number<Table>("inMarkingState"), 917U);
}

TYPED_TEST(AttributeNumbers, OfTheWrapperTheResolverEntryAndTheHelper) {
  using Wrapper = KelpEmServer::KelpEntryWrapper<TypeParam>;
  EXPECT_EQ(number<Wrapper>("entry"), 130U);
  EXPECT_EQ(number<Wrapper>("entryHandle"), 131U);
  EXPECT_EQ(number<Wrapper>("key"), 132U);
  EXPECT_EQ(number<Wrapper>("logEntry"), 133U);
  EXPECT_EQ(number<Wrapper>("rsrcKeys"), 134U);
  using Resolver = KelpEmServer::KelpResolverEntry<TypeParam>;
  EXPECT_EQ(number<Resolver>("swTable"), 258U);
  EXPECT_EQ(number<Resolver>("swTableEntry"), 259U);
  using Helper = KelpEmServer::KelpSwTableHelperBase<TypeParam>;
  EXPECT_EQ(number<Helper>("finalizeOnSuccess"), 130U);
  EXPECT_EQ(number<Helper>("finalizeOnFailure"), 131U);
  EXPECT_EQ(number<Helper>("finalizeOnResourceUpdate"), 132U);
}

template <class T>
class AttributeNumbersWithoutResources : public testing::Test {};
using TablesWithoutResources =
    testing::Types<KelpEmServer::EsemFodo, KelpEmServer::IsemInnerEth, KelpEmServer::LemVpwsAc>;
TYPED_TEST_SUITE(AttributeNumbersWithoutResources, TablesWithoutResources,
                 TestSupport::TableTestName);

TYPED_TEST(AttributeNumbersWithoutResources, CloseUpBehindTheOthers) {
  EXPECT_EQ(number<KelpEmServer::KelpSwTable<TypeParam>>("handleInitialized"), 918U);
  using Wrapper = KelpEmServer::KelpEntryWrapper<TypeParam>;
  EXPECT_EQ(number<Wrapper>("setResolvedFields"), 135U);
  EXPECT_EQ(number<Wrapper>("retrieveClientData"), 136U);
  EXPECT_EQ(number<Wrapper>("finalizeOnSuccess"), 137U);
  EXPECT_EQ(number<Wrapper>("finalizeOnFailure"), 138U);
}

template <class Wrapper>
void expectBehindResources(unsigned first) {
  EXPECT_EQ(number<Wrapper>("setResolvedFields"), first);
  EXPECT_EQ(number<Wrapper>("retrieveClientData"), first + 1);
  EXPECT_EQ(number<Wrapper>("finalizeOnSuccess"), first + 2);
  EXPECT_EQ(number<Wrapper>("finalizeOnFailure"), first + 3);
}

template <class Table>
void expectInLifNumbers(std::string_view second) {
  using Wrapper = KelpEmServer::KelpEntryWrapper<Table>;
  EXPECT_EQ(number<Wrapper>("inLifIdxKey"), 135U);
  EXPECT_EQ(number<Wrapper>("inLifIdxKeyResPtr"), 136U);
  EXPECT_EQ(number<Wrapper>("inLif0Index"), 137U);
  EXPECT_EQ(number<Wrapper>(second), 138U);
  expectBehindResources<Wrapper>(139);
}

TEST(AttributeNumbersOfResources, OfAnIngressInterface) {
  expectInLifNumbers<KelpEmServer::Isem1Tag>("inLif1Index");
  expectInLifNumbers<KelpEmServer::Isem2Tag>("inLif1Index");
  expectInLifNumbers<KelpEmServer::IsemUntagged>("inLif1Index");
  expectInLifNumbers<KelpEmServer::IsemMpls>("inLif23Index");
}

TEST(AttributeNumbersOfResources, OfAVlanEditAndARemarkProfile) {
  using Wrapper = KelpEmServer::KelpEntryWrapper<KelpEmServer::EsemFodoVd>;
  EXPECT_EQ(number<Wrapper>("vlanEditProfileKey"), 135U);
  EXPECT_EQ(number<Wrapper>("vlanEditProfileKeyResPtr"), 136U);
  EXPECT_EQ(number<Wrapper>("vlanEditProfile"), 137U);
  EXPECT_EQ(number<Wrapper>("remarkProfileType"), 138U);
  EXPECT_EQ(number<Wrapper>("remarkProfileKey"), 139U);
  EXPECT_EQ(number<Wrapper>("remarkProfileKeyResPtr"), 140U);
  EXPECT_EQ(number<Wrapper>("remarkProfile"), 141U);
  expectBehindResources<Wrapper>(142);
}

// Only what is too large for the slab comes from the general heap.
static_assert(sizeof(KelpEmServer::KelpEntryWrapper<KelpEmServer::Isem2Tag>) <=
              PoolSlab::kLargestSize);
static_assert(sizeof(KelpEmServer::KelpEntryWrapper<KelpEmServer::EsemFodoVd>) >
              PoolSlab::kLargestSize);

}  // namespace
