#include "Brio/GenericIfImpl.h"
#include "Brio/GenericIterator.h"
#include "Brio/InspectPlace.h"
#include "Brio/InspectType.h"
#include "Brio/MutatorException.h"
#include "InspectFixture.h"

// What the classes around a table take by field id: members of their collections, values of their
// writable attributes, arguments of their factories; and what is refused to callers from outside.

namespace {

using Brio::InspectError;
using Brio::InspectPlace;
using Brio::InspectValue;
using InspectTest::ask;
using InspectTest::classOf;
using InspectTest::kDone;
using InspectTest::kNotValid;
using InspectTest::NodePtr;
using InspectTest::read;
using testing::HasSubstr;
namespace Code = Lumen::Inspect;

template <class Action>
std::string thrown(Action action) {
  try {
    action();
  } catch (const std::exception& error) {
    return error.what();
  }
  return "";
}

template <class T>
class Members : public InspectTest::InspectFixture<T> {
 public:
  using Entry = typename T::Entry;
  using Key = typename Entry::Key;
};
TYPED_TEST_SUITE(Members, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(Members, OfACopyAreEntriesByValue) {
  using Entry = typename TypeParam::Entry;
  NodePtr copy;
  ASSERT_EQ(ask(*this->table_, "getTableEntries_py", Code::kCall, &copy), kDone);
  const Entry one = this->entry(1);
  const auto key = this->key(1);
  EXPECT_EQ(ask(*copy, "tableEntries", Code::kWrite, nullptr, nullptr, {&one}), kDone);
  std::uint32_t count = 0;
  EXPECT_EQ(ask(*copy, "tableEntries", Code::kCount, &count), kDone);
  EXPECT_EQ(count, 1U);
  EXPECT_EQ(ask(*copy, "tableEntries", Code::kSecondSize, &count), kDone);
  EXPECT_GE(count, 1U);
  bool has = false;
  EXPECT_EQ(ask(*copy, "tableEntries", Code::kHas, &has, &key), kDone);
  EXPECT_TRUE(has);
  for (const unsigned char operation : {Code::kRead, Code::kLookup}) {
    Entry found;
    EXPECT_EQ(ask(*copy, "tableEntries", operation, &found, &key), kDone);
    EXPECT_TRUE(found.isEq(one));
  }
  Entry old;
  EXPECT_EQ(ask(*copy, "tableEntries", Code::kDelete, &old, &key), kDone);
  EXPECT_TRUE(old.isEq(one));
  EXPECT_EQ(ask(*copy, "tableEntries", Code::kDelete, &old, &key), kDone);
  EXPECT_TRUE(old.isEq(Entry())) << "the default entry, where there is none";
}

TYPED_TEST(Members, OfALogAreTheCollectionsOfItsUnits) {
  auto& log = *this->intf()->entryLog();
  const Asic::UnitId unit{0};
  const Asic::UnitId other{1};
  NodePtr quilt;
  EXPECT_EQ(ask(log, "tableConfigQuilt", Code::kLookup, &quilt, &unit), kDone);
  ASSERT_NE(quilt, nullptr);
  EXPECT_EQ(ask(log, "tableConfigQuilt", Code::kWrite, nullptr, nullptr, {&other, &quilt}), kDone);
  std::uint32_t count = 0;
  EXPECT_EQ(ask(log, "tableConfigQuilt", Code::kCount, &count), kDone);
  EXPECT_EQ(count, 2U);
  bool has = false;
  EXPECT_EQ(ask(log, "tableConfigQuilt", Code::kHas, &has, &other), kDone);
  EXPECT_TRUE(has);
  NodePtr old;
  EXPECT_EQ(ask(log, "tableConfigQuilt", Code::kDelete, &old, &other), kDone);
  EXPECT_EQ(old.get(), quilt.get());
  EXPECT_EQ(ask(log, "tableConfigQuilt", Code::kDelete, &old, &other), kDone);
  EXPECT_EQ(old, nullptr);
}

TYPED_TEST(Members, OfTheQueueAreAskedForByIndex) {
  auto& table = *this->table_;
  this->commit(this->table_, 1);
  const std::uint32_t front = table.entryHandleInLog().frontIndex();
  const std::uint32_t behind = front + 1;
  NodePtr handle;
  EXPECT_EQ(ask(table, "entryHandleInLog", Code::kRead, &handle, &front), kDone);
  EXPECT_EQ(handle.get(), table.entryHandleInLogFront().get());
  bool has = false;
  EXPECT_EQ(ask(table, "entryHandleInLog", Code::kHas, &has, &front), kDone);
  EXPECT_TRUE(has);
  EXPECT_EQ(ask(table, "entryHandleInLog", Code::kHas, &has, &behind), kDone);
  EXPECT_FALSE(has);
  EXPECT_EQ(ask(table, "entryHandleInLog", Code::kLookup, &handle, &behind), kDone);
  EXPECT_EQ(handle, nullptr);
  std::uint32_t size = 0;
  EXPECT_EQ(ask(table, "entryHandleInLog", Code::kSecondSize, &size), kDone);
  EXPECT_EQ(size, 1U);
}

TYPED_TEST(Members, WritableAttributesTakeWhatTheyHold) {
  const NodePtr state(this->table_->initIterState());
  const auto key = this->key(5);
  EXPECT_EQ(ask(*state, "bookmarkKey", Code::kWrite, nullptr, nullptr, {&key}), kDone);
  EXPECT_EQ(read<typename TypeParam::Entry::Key>(*state, "bookmarkKey"), key);

  const auto before = this->table_->transientRemoveAllVersion();
  const auto version = Asic::MajorVersion{9};
  EXPECT_EQ(
      ask(*this->table_, "transientRemoveAllVersion", Code::kWrite, nullptr, nullptr, {&version}),
      kDone);
  EXPECT_EQ(read<Asic::MajorVersion>(*this->table_, "transientRemoveAllVersion"), version);
  this->table_->transientRemoveAllVersionIs(before);
}

TYPED_TEST(Members, TheGlueOfEveryClassLeadsToTheNodeItself) {
  const auto& glue = classOf(*this->table_).glue();
  EXPECT_EQ(glue.empty[0], nullptr);
  EXPECT_EQ(glue.empty[1], nullptr);
  ASSERT_NE(glue.nodeMethods, nullptr);
  const auto& methods =
      *static_cast<const Brio::GenericIfImpl::PtrInterfaceMethods*>(glue.nodeMethods);
  const Lumen::Node* node = this->table_.get();
  const auto before = node->refCount();
  methods.refInc(node);
  EXPECT_EQ(node->refCount(), before + 1);
  methods.refDec(node);
  EXPECT_EQ(node->refCount(), before);
  EXPECT_EQ(&methods.typeData(node), &node->typeData());
  EXPECT_EQ(methods.publisher(node), node->publisher());
}

TYPED_TEST(Members, FactoriesTakeTheirArgumentsInDeclaredOrder) {
  NodePtr copy = this->table_->getTableEntries_py();
  NodePtr made;
  classOf(*copy).glue().construct(&made, nullptr);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(made->typeData().className, copy->typeData().className);

  const NodePtr dependency;
  const auto flags = Asic::EntryFlags::entryDeleted;
  Lumen::Node* table = this->table_.get();
  const NodePtr wrapper = this->wrapper(2);
  (void)this->table_->entryWrite(this->key(1), this->entry(1), nullptr);
  const auto queued = this->table_->resolverQueue().front();
  const void* args[] = {&dependency, &flags, &table, &wrapper};
  classOf(*queued).glue().construct(&made, const_cast<void* const*>(args));
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(read<NodePtr>(*made, "swTableEntry").get(), wrapper.get());
  EXPECT_TRUE(Lumen::staticPtrCast<Asic::ResolverEntry>(made)->isEntryDeleted());
}

// ---- what callers from outside are kept from

TYPED_TEST(Members, AUnitThatIsNotThereIsRefused) {
  auto& log = *this->intf()->entryLog();
  const auto key = this->key(1);
  const Asic::UnitId unit{7};
  const NodePtr none;
  for (const char* operation : {"entry", "entryHas", "entryRsrcKeys", "entryLogVersion"}) {
    EXPECT_THAT(thrown([&] {
                  ask(log, operation, Code::kCall, nullptr, nullptr, {&key, &unit});
                }),
                HasSubstr("no unit 7 of " + std::string(TypeParam::name.view())))
        << operation;
  }
  for (const char* operation : {"entrys", "entrysInDeletion"}) {
    EXPECT_THAT(thrown([&] { ask(log, operation, Code::kCall, nullptr, nullptr, {&unit}); }),
                HasSubstr("no unit 7"))
        << operation;
  }
  EXPECT_THAT(thrown([&] {
                ask(log, "entryDel", Code::kCall, nullptr, nullptr, {&key, &none, &unit});
              }),
              HasSubstr("no unit 7"));
  EXPECT_THAT(thrown([&] {
                ask(log, "tableDel", Code::kCall, nullptr, nullptr, {&none, &unit});
              }),
              HasSubstr("no unit 7"));
  EXPECT_EQ(log.tableVersion().value, 0U) << "nothing was done";
}

TYPED_TEST(Members, AnOperationOfAnotherTableIsNotCommitted) {
  const auto other = this->table(this->unit1);
  (void)other->entryWrite(this->key(1), this->entry(1), nullptr);
  const NodePtr queued(other->resolverQueue().front());
  EXPECT_THAT(
      thrown([&] { ask(*this->table_, "commitEntry", Code::kCall, nullptr, nullptr, {&queued}); }),
      HasSubstr("take one from its resolver queue"));
}

TYPED_TEST(Members, NullIsRefusedWhereAnOperationWantsANode) {
  const InspectPlace table(NodePtr(this->table_), "table");
  const InspectValue null{NodePtr()};
  for (const char* operation : {"commitEntry", "getNeededEntrySet", "isResolverEntryResolved"}) {
    EXPECT_THAT(thrown([&] { (void)table.step(operation).call({null}); }),
                HasSubstr("argument 1 is null; give the path of a "))
        << operation;
    EXPECT_THAT(thrown([&] { (void)table.step(operation).call({InspectValue()}); }),
                HasSubstr("argument 1 is null"))
        << operation;
  }
  // Where it stands for none, it is taken.
  EXPECT_NO_THROW((void)table.step("entryRemove").call({Brio::toInspect(this->key(1)), null}));
}

// ---- linkages

TYPED_TEST(Members, OfALinkageAreItsStateMachinesAndOfThoseTheirEntries) {
  TypeParam::Linkages::forEachKind([&](auto tag) {
    using L = typename decltype(tag)::Kind;
    const NodePtr linkage(TestSupport::linkageOf<L>(*this->table_).get());
    const auto resource = TestSupport::sampleResource<typename L::ResourceKey>(7);
    const NodePtr handle = Lumen::makeNode<typename L::ResourceHandle>(resource);
    InspectTest::FieldWatch watch(linkage->publisher(), 138);
    EXPECT_EQ(ask(*linkage, "entryUsageSm", Code::kWrite, nullptr, nullptr, {&handle}), kDone);
    EXPECT_EQ(watch.changes(), 1U);
    NodePtr sm;
    EXPECT_EQ(ask(*linkage, "entryUsageSm", Code::kLookup, &sm, &resource), kDone);
    ASSERT_NE(sm, nullptr);
    EXPECT_EQ(read<NodePtr>(*sm, "resPtr").get(), handle.get());

    const auto key = this->key(1);
    EXPECT_EQ(ask(*sm, "entryUsage", Code::kWrite, nullptr, nullptr, {&key}), kDone);
    bool has = false;
    EXPECT_EQ(ask(*sm, "entryUsage", Code::kRead, &has, &key), kDone);
    EXPECT_TRUE(has);
    EXPECT_EQ(ask(*sm, "entryUsage", Code::kDelete, &has, &key), kDone);
    EXPECT_TRUE(has) << "it was there";
    EXPECT_EQ(ask(*sm, "entryUsage", Code::kDelete, &has, &key), kDone);
    EXPECT_FALSE(has);

    // A key has one handle for good: another one throws, and nothing of it is kept.
    const NodePtr other = Lumen::makeNode<typename L::ResourceHandle>(resource);
    const auto before = other->refCount();
    EXPECT_THROW(ask(*linkage, "entryUsageSm", Code::kWrite, nullptr, nullptr, {&other}),
                 Brio::MutatorException);
    EXPECT_EQ(other->refCount(), before);

    NodePtr old;
    EXPECT_EQ(ask(*linkage, "entryUsageSm", Code::kDelete, &old, &resource), kDone);
    EXPECT_EQ(old.get(), sm.get());
    EXPECT_EQ(watch.changes(), 2U);
    EXPECT_EQ(ask(*linkage, "entryUsageSm", Code::kDelete, &old, &resource), kDone);
    EXPECT_EQ(old, nullptr);
  });
}

TYPED_TEST(Members, LinkagesAndStateMachinesAreMadeByTheirFactories) {
  TypeParam::Linkages::forEachKind([&](auto tag) {
    using L = typename decltype(tag)::Kind;
    const auto& linkage = TestSupport::linkageOf<L>(*this->table_);
    Lumen::Node* table = this->table_.get();
    const NodePtr client(linkage->resTblClient());
    const void* args[] = {&table, &client};
    NodePtr made;
    classOf(*linkage).glue().construct(&made, const_cast<void* const*>(args));
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(read<NodePtr>(*made, "resTblClient").get(), client.get());

    const NodePtr handle = Lumen::makeNode<typename L::ResourceHandle>(
        TestSupport::sampleResource<typename L::ResourceKey>(3));
    Lumen::Node* parent = made.get();
    const void* smArgs[] = {&handle, &parent};
    const auto known =
        linkage->entryUsageSmIs(Lumen::staticPtrCast<const typename L::ResourceHandle>(handle));
    NodePtr sm;
    classOf(*known).glue().construct(&sm, const_cast<void* const*>(smArgs));
    ASSERT_NE(sm, nullptr);
    EXPECT_EQ(read<NodePtr>(*sm, "resPtr").get(), handle.get());
    Lumen::Node* back = nullptr;
    EXPECT_EQ(ask(*sm, "parent", Code::kRead, &back), kDone);
    EXPECT_EQ(back, made.get());
    linkage->entryUsageSmDelAll();
  });
}

// ---- iterators by themselves

struct NodeOrNull {
  std::uint32_t operator()(const NodePtr& node) const noexcept { return node ? 5 : 0; }
};
struct HN_OwnKey : Brio::Hm2018NI<1, std::uint32_t, NodePtr, NodeOrNull, 1> {
  static constexpr const char* className() { return "HN_OwnKey"; }
  using Brio::Hm2018NI<1, std::uint32_t, NodePtr, NodeOrNull, 1>::Hm2018NI;
};

TEST(GenericIterators, GiveTheDefaultKeyForANullValueThatHasTheKeyInIt) {
  using Collection = Brio::HashMap2018<HN_OwnKey>;
  Collection collection;
  collection.newMember(collection.hashed(0U), HN_OwnKey(NodePtr()));
  void* const at = Brio::GenericIterator<Collection>::make(collection, nullptr);
  ASSERT_NE(at, nullptr);
  const auto& functions = Brio::GenericIterator<Collection>::kFunctions;
  EXPECT_TRUE(functions.iterNonnull({}, at));
  std::uint32_t key = 9;
  functions.iterKey({}, at, &key);
  EXPECT_EQ(key, 0U);
  NodePtr value = Lumen::makeNode<Asic::NeededEntry>();
  functions.iterObj({}, at, &value);
  EXPECT_EQ(value, nullptr);
  functions.iterInc({}, at);
  EXPECT_FALSE(functions.iterNonnull({}, at));
  functions.iterDel({}, at);
}

}  // namespace
