#include <set>

#include "Brio/InspectCollection.h"
#include "Brio/InspectPath.h"
#include "Brio/InspectPlace.h"
#include "Brio/InspectType.h"
#include "InspectFixture.h"

// What is below the tables: the operations that feature code calls, the group and its queue, and
// the resource tables.

namespace {

using Brio::InspectError;
using Brio::InspectPlace;
using Brio::InspectValue;
using InspectTest::NodePtr;
using testing::HasSubstr;

InspectValue at(const std::string& path) { return InspectPlace::find(path).read(); }
std::string keyText(const InspectValue& key) {
  const std::string text = key.text();
  const bool record = key.as<InspectValue::Record>() != nullptr;
  return "[" + (record ? text.substr(1, text.size() - 2) : text) + "]";
}

template <class T>
class BelowTables : public InspectTest::InspectFixture<T> {
 protected:
  static std::string tablePath() {
    return "KelpEmServer::" + std::string(T::name.view()) + "KelpInterface/swTableSet[0]";
  }
  static InspectValue call(const std::string& operation, const InspectPlace::Args& args) {
    return InspectPlace::find(tablePath() + "/" + operation).call(args);
  }
};
TYPED_TEST_SUITE(BelowTables, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(BelowTables, EntriesAreWrittenReadAndRemovedByName) {
  const InspectValue key = Brio::toInspect(this->key(3));
  const InspectValue entry = Brio::toInspect(this->entry(3));
  EXPECT_EQ(this->call("entryHas", {key}), InspectValue(false));
  const InspectValue written = this->call("entryWrite", {key, entry, InspectValue()});
  ASSERT_NE(written.as<NodePtr>(), nullptr);
  const InspectPlace handle(*written.as<NodePtr>(), "handle");
  EXPECT_EQ(handle.step("key").read(), key);
  EXPECT_EQ(handle.step("entryState").read(), InspectValue(0U));
  EXPECT_EQ(this->call("entryHas", {key}), InspectValue(true));
  EXPECT_EQ(this->call("entryRead", {key}), entry);
  this->pass();
  EXPECT_EQ(handle.step("entryState").read(), InspectValue(1U));
  EXPECT_EQ(handle.step("logVersion").read(), InspectValue(1U));

  // A handle is given as what it is.
  const InspectValue removed = this->call("entryRemove", {key, written});
  ASSERT_NE(removed.as<NodePtr>(), nullptr);
  EXPECT_EQ(this->call("entryHas", {key}), InspectValue(false));
  this->call("entryRemoveAll", {InspectValue()});
  EXPECT_THROW(this->call("entryWrite", {key, entry}), InspectError);
}

TYPED_TEST(BelowTables, AWalkIsBegunAndSteppedByName) {
  this->commit(this->table_, 1);
  const InspectValue begun = this->call("initIterState", {});
  ASSERT_NE(begun.as<NodePtr>(), nullptr);
  const InspectPlace state(*begun.as<NodePtr>(), "walk");
  EXPECT_EQ(*state.step("swTable").read().template as<NodePtr>(), NodePtr(this->table_.get()));
  const InspectValue entry = state.step("maybeUpdateCurrentEntry").call({});
  EXPECT_EQ(entry, Brio::toInspect(this->table_->entryRead(this->key(1))));
  EXPECT_EQ(*state.step("state").read().template as<std::uint64_t>() & 1U, 1U) << "valid";
  (void)state.step("maybeUpdateCurrentEntry").call({});
  EXPECT_EQ(*state.step("state").read().template as<std::uint64_t>() & 1U, 0U);
}

TYPED_TEST(BelowTables, EntriesAreWalkedAsTheyAre) {
  for (unsigned i = 0; i < 40; ++i) {
    this->commit(this->table_, i);
  }
  (void)this->table_->entryWrite(this->key(50), this->entry(50), nullptr);
  (void)this->table_->entryRemove(this->key(7), nullptr);
  const auto entries = InspectPlace::find(this->tablePath() + "/entries");
  EXPECT_EQ(entries.count(), 40U);
  EXPECT_FALSE(entries.has(Brio::toInspect(this->key(7))));
  EXPECT_EQ(entries.lookup(Brio::toInspect(this->key(50))), Brio::toInspect(this->entry(50)));
  EXPECT_EQ(at(this->tablePath() + "/entries" + keyText(Brio::toInspect(this->key(3)))),
            Brio::toInspect(this->table_->entryRead(this->key(3))));

  // What goes in front of the walk is not shown any more; what it stands on is known to be gone.
  std::set<std::string> seen;
  auto cursor = entries.cursor();
  for (; !cursor.atEnd() && seen.size() < 10; cursor.advance()) {
    EXPECT_TRUE(seen.insert(cursor.key().text()).second);
    EXPECT_EQ(cursor.value(), entries.lookup(cursor.key()));
  }
  std::vector<unsigned> removed;
  for (unsigned i = 0; i < 40; i += 2) {
    if (i != 7 && !seen.contains(Brio::toInspect(this->key(i)).text())) {
      (void)this->table_->entryRemove(this->key(i), nullptr);
      removed.push_back(i);
    }
  }
  this->pass();
  for (; !cursor.atEnd(); cursor.advance()) {
    EXPECT_TRUE(seen.insert(cursor.key().text()).second) << cursor.key().text();
  }
  for (const unsigned number : removed) {
    seen.erase(Brio::toInspect(this->key(number)).text());  // the one that it stood on, at most
  }
  for (unsigned i = 1; i < 40; i += 2) {
    EXPECT_EQ(seen.contains(Brio::toInspect(this->key(i)).text()), i != 7) << i;
  }
  EXPECT_TRUE(entries.cursor(Brio::toInspect(this->key(7))).atEnd());
}

TYPED_TEST(BelowTables, MarkingIsBegunAndTheSweepDoneByName) {
  this->commit(this->table_, 1);
  this->call("mark", {});
  EXPECT_EQ(at(this->tablePath() + "/inMarkingState"), InspectValue(true));
  this->call("sweep", {});
  EXPECT_FALSE(this->table_->entryHas(this->key(1)));
}

TYPED_TEST(BelowTables, TheGroupLeadsToTheSameTables) {
  const std::string groups = "Asic::OrderedTableInterface/groupIntfColl/groupIntf";
  auto group = InspectPlace::find(groups).cursor();
  ASSERT_FALSE(group.atEnd());
  const std::string path = groups + keyText(group.key());
  const std::string set = path + "/swTableSet[" + std::to_string(TypeParam::tableId.value) + "]";
  EXPECT_EQ(*at(set + "/swTable[0]").template as<NodePtr>(), NodePtr(this->table_.get()));
  group.advance();
  EXPECT_TRUE(group.atEnd());

  EXPECT_EQ(at(path + "/groupResolver/size"), InspectValue(0U));
  (void)this->table_->entryWrite(this->key(1), this->entry(1), nullptr);
  (void)this->table_->entryRemove(this->key(2), nullptr);
  EXPECT_EQ(at(path + "/groupResolver/size"), InspectValue(2U));
  EXPECT_EQ(at(this->tablePath() + "/resolverQueueSize"), InspectValue(2U));
  const std::string front = this->tablePath() + "/resolverQueueFront";
  EXPECT_EQ(at(front + "/swTableEntry/key"), Brio::toInspect(this->key(1)));
  EXPECT_EQ(at(front + "/isEntryDeleted"), InspectValue(false));
  EXPECT_EQ(*at(front + "/dependency").template as<NodePtr>(), nullptr);
}

TYPED_TEST(BelowTables, TheProcessListsItsInterfaces) {
  const std::string name = "KelpEmServer::" + std::string(TypeParam::name.view()) + "KelpInterface";
  const NodePtr intf(this->intf().get());
  EXPECT_EQ(*at("Asic::SwTableInterfacesSingleton/swTableIntf[\"" + name + "\"]").as<NodePtr>(),
            intf);
  EXPECT_EQ(*at("Asic::OrderedTableInterface/swTableIntf[\"" + name + "\"]").as<NodePtr>(), intf);
  EXPECT_EQ(*at(name + "/orderedTableIntf").as<NodePtr>(),
            *at("Asic::OrderedTableInterface").as<NodePtr>());
}

// ---- tables with resources

using LinkedTypes = testing::Types<
#ifndef KELP_FEW_TABLES
    KelpEmServer::Isem2Tag, KelpEmServer::IsemMpls, KelpEmServer::IsemUntagged,
#endif
    KelpEmServer::EsemFodoVd, KelpEmServer::Isem1Tag>;
template <class T>
class BelowLinkages : public BelowTables<T> {};
TYPED_TEST_SUITE(BelowLinkages, LinkedTypes, TestSupport::TableTestName);

TYPED_TEST(BelowLinkages, AResourceIsSeenFromItsTableAndFromItsHandle) {
  TypeParam::Linkages::forEachKind([&](auto tag) {
    using L = typename decltype(tag)::Kind;
    auto entry = this->entry(1);
    const auto resource = TestSupport::sampleResource<typename L::ResourceKey>(7);
    const_cast<typename L::ResourceKey&>(L::key(entry)) = resource;
    (void)this->table_->entryWrite(this->key(1), entry, nullptr);
    this->pass();
    const InspectValue key = Brio::toInspect(resource);

    const NodePtr linkage(TestSupport::linkageOf<L>(*this->table_).get());
    const InspectPlace sm = InspectPlace(linkage, "linkage").step("entryUsageSm").member(key);
    const InspectPlace handle = sm.step("resPtr");
    EXPECT_EQ(handle.step("key").read(), key);
    EXPECT_EQ(handle.step("entryState").read(), InspectValue(4U));
    EXPECT_EQ(handle.step("entryState").field()->attribute.id(),
              L::ResourceTable::Kind::kFieldId.attribute());
    EXPECT_EQ(handle.step("updateVersion").read(), InspectValue(1U));
    EXPECT_EQ(handle.step("neededEntry").step("versions").read(),
              InspectValue(InspectValue::List{}));

    const InspectPlace table = InspectPlace(linkage, "linkage").step("resTblClient").step("table");
    const InspectPlace known = table.step("resource").member(key);
    const InspectValue index = known.step("index").read();
    EXPECT_GE(*index.template as<std::uint64_t>(), 1U);
    EXPECT_EQ(known.step("results").read(), handle.step("results").read());
    const InspectValue holders = known.step("holders").read();
    ASSERT_EQ(holders.template as<InspectValue::List>()->size(), 1U);
    EXPECT_EQ(known.step("holders").member(0U).step("acked").read(), InspectValue(1U));
    EXPECT_EQ(known.step("holders").member(0U).step("client").step("tableId").read(),
              InspectValue(TypeParam::tableId.value));
    const std::uint64_t taken = *table.step("indexesTaken").read().template as<std::uint64_t>();
    EXPECT_GE(taken, 1U);

    // A change is told to who watches the handle's state.
    unsigned told = 0;
    const auto watch = handle.step("entryState").subscribe([&](const InspectValue&) { ++told; });
    EXPECT_EQ(table.step("change").call({key}), InspectValue(true));
    EXPECT_EQ(told, 1U);
    EXPECT_NE(known.step("index").read(), index);
    EXPECT_EQ(table.step("indexesTaken").read(), InspectValue(taken + 1)) << "the old one, too";
    EXPECT_EQ(known.step("holders").member(0U).step("acked").read(), InspectValue(2U));
  });
}

TYPED_TEST(BelowLinkages, AResourceTableIsFoundByItsName) {
  TypeParam::Linkages::forEachKind([&](auto tag) {
    using L = typename decltype(tag)::Kind;
    const std::string tables = "Asic::OrderedTableInterface/resourceTable";
    const NodePtr table(TestSupport::linkageOf<L>(*this->table_)->resTblClient()->table().get());
    const InspectPlace place(table, "table");
    const InspectValue name = place.step("canonicalName").step("name").read();
    EXPECT_EQ(*at(tables + keyText(name)).template as<NodePtr>(), table);
    EXPECT_EQ(place.step("limit").read(), InspectValue(L::ResourceTable::Kind::kLimit));
    place.step("deadline").write({2.5});
    EXPECT_EQ(place.step("deadline").read(), InspectValue(2.5));
    place.step("deadline").write({0U});
    EXPECT_EQ(place.step("deadline").read(), InspectValue(0.0));
  });
}

// ---- what they stand on

TEST(MapIterators, GoOnFromTheirKeyWhateverComesAndGoes) {
  using Map = std::map<std::uint32_t, std::uint32_t>;
  Map map{{1, 10}, {3, 30}, {5, 50}, {7, 70}};
  Brio::InspectCollection<Map>::Iterator at(map);
  at.advance();
  ASSERT_EQ(at.key(), 3U);
  EXPECT_EQ(*at.present(), 30U);
  map.erase(3);
  map.erase(5);
  map[4] = 40;
  EXPECT_EQ(at.key(), 3U);
  EXPECT_EQ(at.present(), nullptr);
  at.advance();
  EXPECT_EQ(at.key(), 4U);
  map.clear();
  at.advance();
  EXPECT_FALSE(at.nonnull());
  at.advance();
  EXPECT_FALSE(at.nonnull());
  EXPECT_FALSE(Brio::InspectCollection<Map>::Iterator(map, 9).nonnull()) << "an absent key";
}

TEST(PathText, QuotesAndBackslashesInTextComeBack) {
  const InspectValue text("a \"b\" \\ c/[d]");
  EXPECT_EQ(text.text(), R"("a \"b\" \\ c/[d]")");
  EXPECT_EQ(Brio::inspectParse(text.text()), text);
  const auto steps = Brio::inspectSteps("x[" + text.text() + "]/y");
  ASSERT_EQ(steps.size(), 2U);
  EXPECT_EQ(steps[0].keys[0], text);
  EXPECT_THROW((void)Brio::inspectParse(R"("open\)"), InspectError);
  EXPECT_THROW((void)Brio::inspectParse(R"("open\")"), InspectError);
}

TEST(PathText, ANumberThatIsTooLargeIsRefusedInTextToo) {
  std::uint32_t number = 5;
  EXPECT_THROW(Brio::fromInspect(InspectValue("99999999999999999999999"), number, "n"),
               InspectError);
  EXPECT_EQ(number, 5U);
}

}  // namespace
