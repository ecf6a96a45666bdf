#include "Brio/InspectPlace.h"

#include "Brio/InspectPath.h"
#include "Brio/InspectType.h"
#include "InspectFixture.h"

// Paths to objects and values, and what is done at their end.

namespace {

using Brio::InspectError;
using Brio::InspectPlace;
using Brio::InspectRoots;
using Brio::InspectValue;
using InspectTest::NodePtr;
using testing::HasSubstr;

// What an action refuses with; empty if it does not.
template <class Action>
std::string refusal(Action action) {
  try {
    action();
  } catch (const InspectError& error) {
    return error.what();
  }
  return "";
}
std::string refusalOf(const std::string& path) {
  return refusal([&] { (void)InspectPlace::find(path).read(); });
}
InspectValue at(const std::string& path) { return InspectPlace::find(path).read(); }
std::uint64_t numberAt(const std::string& path) {
  const InspectValue value = at(path);
  const auto* number = value.as<std::uint64_t>();
  EXPECT_NE(number, nullptr) << path << ": " << value.text();
  return number == nullptr ? ~std::uint64_t{0} : *number;
}
NodePtr nodeAt(const std::string& path) {
  const InspectValue value = at(path);
  const auto* node = value.as<NodePtr>();
  return node == nullptr ? nullptr : *node;
}

// ---- every table

template <class T>
class Places : public InspectTest::InspectFixture<T> {
 protected:
  static std::string root() {
    return "KelpEmServer::" + std::string(T::name.view()) + "KelpInterface";
  }
  static std::string tablePath() { return root() + "/swTableSet[0]"; }
  // A key as a path writes it.
  std::string keyText(std::uint64_t number) {
    const InspectValue key = Brio::toInspect(this->key(number));
    const std::string text = key.text();
    const bool record = key.as<InspectValue::Record>() != nullptr;
    return "[" + (record ? text.substr(1, text.size() - 2) : text) + "]";
  }
};
TYPED_TEST_SUITE(Places, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(Places, BeginAtTheInterfaceForAsLongAsItIsThere) {
  EXPECT_EQ(InspectRoots::root(this->root()).get(), this->intf().get());
  EXPECT_THAT(InspectRoots::names(), testing::Contains(this->root()));
  EXPECT_EQ(nodeAt(this->root()).get(), this->intf().get());
  this->table_ = nullptr;
  this->stop();
  EXPECT_EQ(InspectRoots::root(this->root()), nullptr);
  EXPECT_THAT(refusalOf(this->root()), HasSubstr("no such root"));
  this->start();
  this->table_ = this->table();
  EXPECT_EQ(nodeAt(this->tablePath()).get(), this->table_.get());
}

TYPED_TEST(Places, LeadToAWriteInFlightAndItsHandle) {
  const auto handle = this->table_->entryWrite(this->key(3), this->entry(3), nullptr);
  const std::string write = this->tablePath() + "/transientAddEntry" + this->keyText(3);
  EXPECT_EQ(nodeAt(write).get(), this->table_->transientAddEntry(this->key(3)).get());
  EXPECT_EQ(nodeAt(write + "/entryHandle").get(), handle.get());
  EXPECT_EQ(numberAt(write + "/entryHandle/entryState"), 0U);
  EXPECT_EQ(numberAt(write + "/entryHandle/version/majorVersion"), 0U);
  EXPECT_EQ(at(write + "/key"), Brio::toInspect(this->key(3)));
  EXPECT_EQ(at(write + "/entry"), Brio::toInspect(this->entry(3)));
  EXPECT_EQ(numberAt(this->tablePath() + "/stats/entryWriteCnt"), 1U);
  EXPECT_EQ(at(this->tablePath() + "/hasPendingHwWrites"), InspectValue(true));
  EXPECT_THAT(refusalOf(this->tablePath() + "/transientAddEntry" + this->keyText(4)),
              HasSubstr("transientAddEntry: no member " + this->keyText(4) + " among 1"));
}

TYPED_TEST(Places, HaveTheCommittedEntriesInACopy) {
  this->commit(this->table_, 1);
  this->commit(this->table_, 2);
  const auto copy = InspectPlace::find(this->tablePath() + "/getTableEntries_py/tableEntries");
  EXPECT_EQ(copy.count(), 2U);
  EXPECT_TRUE(copy.has(Brio::toInspect(this->key(1))));
  EXPECT_FALSE(copy.has(Brio::toInspect(this->key(3))));
  EXPECT_EQ(copy.lookup(Brio::toInspect(this->key(2))),
            Brio::toInspect(this->table_->entryRead(this->key(2))));
}

TYPED_TEST(Places, CallOperationsWithRecordsAndNumbers) {
  this->commit(this->table_, 1);
  const auto has = InspectPlace::find(this->root() + "/entryLog/entryHas");
  EXPECT_EQ(has.call({Brio::toInspect(this->key(1)), 0U}), InspectValue(true));
  EXPECT_EQ(has.call({Brio::toInspect(this->key(2)), 0U}), InspectValue(false));
  const auto make = InspectPlace::find(this->root() + "/makeSwTable");
  const InspectValue made = make.call({0U, InspectValue(), false});
  ASSERT_NE(made.as<NodePtr>(), nullptr);
  EXPECT_EQ(made.as<NodePtr>()->get(), this->table_.get());
  EXPECT_THAT(refusal([&] { (void)make.call({0U}); }), HasSubstr("1 arguments, not the 3"));
  EXPECT_THAT(refusal([&] {
                (void)make.call({70000U, InspectValue(), false});
              }),
              HasSubstr("70000 is above the largest value, 65535"));
  // The interface is no helper; by a path, the helper is one.
  EXPECT_THAT(refusal([&] { (void)make.call({0U, this->root(), false}); }), HasSubstr("is no "));
  EXPECT_FALSE(make.call({0U, this->tablePath() + "/swTableHelper", false}).isNothing());
}

TYPED_TEST(Places, WriteAsSettersDo) {
  const auto marking = InspectPlace::find(this->tablePath() + "/inMarkingState");
  unsigned told = 0;
  {
    const auto watch = marking.subscribe([&](const InspectValue& key) {
      EXPECT_TRUE(key.isNothing());
      ++told;
    });
    marking.write({true});
    marking.write({true});
  }
  marking.write({false});
  EXPECT_EQ(told, 1U);
  EXPECT_EQ(marking.read(), InspectValue(false));
  EXPECT_THAT(refusal([&] { marking.write({3U}); }), HasSubstr("3 is neither true nor false"));

  const auto marked = InspectPlace::find(this->tablePath() + "/markedKey");
  const InspectValue key = Brio::toInspect(this->key(5));
  InspectValue toldKey;
  const auto watch = marked.subscribe([&](const InspectValue& changed) { toldKey = changed; });
  marked.write({key});
  EXPECT_EQ(toldKey, key);
  EXPECT_TRUE(marked.has(key));
  EXPECT_EQ(marked.del(key), InspectValue(true));
  EXPECT_EQ(marked.count(), 0U);

  const auto name = InspectPlace::find(this->root() + "/tableName");
  EXPECT_THAT(refusal([&] { name.write({"x"}); }), HasSubstr("/tableName: it can only be read"));
}

TYPED_TEST(Places, WalkCollectionsThatChange) {
  for (unsigned i = 0; i < 30; ++i) {
    this->table_->markedKeyIs(this->key(i));
  }
  const auto marked = InspectPlace::find(this->tablePath() + "/markedKey");
  EXPECT_GE(marked.secondSize(), 30U);
  std::vector<InspectValue> order;
  for (auto cursor = marked.cursor(); !cursor.atEnd(); cursor.advance()) {
    order.push_back(cursor.key());
  }
  ASSERT_EQ(order.size(), 30U);
  // A walk that begins at a key goes on as the first one did, also when members leave.
  std::vector<InspectValue> rest;
  for (auto cursor = marked.cursor(order[10]); !cursor.atEnd(); cursor.advance()) {
    rest.push_back(cursor.key());
    marked.del(rest.back());
  }
  EXPECT_EQ(rest, std::vector<InspectValue>(order.begin() + 10, order.end()));
  EXPECT_TRUE(marked.cursor(order[10]).atEnd()) << "it has left";
}

TYPED_TEST(Places, AWalkThatWaitsKeepsNothingThatHasLeft) {
  constexpr unsigned kCount = 30;
  std::vector<NodePtr> wrappers;
  for (unsigned i = 0; i < kCount; ++i) {
    const auto wrapper = this->wrapper(i);
    this->table_->transientAddEntryIs(wrapper);
    wrappers.emplace_back(wrapper);
  }
  const auto waiting = InspectPlace::find(this->tablePath() + "/transientAddEntry");
  std::vector<InspectValue> order;
  for (auto cursor = waiting.cursor(); !cursor.atEnd(); cursor.advance()) {
    order.push_back(cursor.key());
  }
  ASSERT_EQ(order.size(), kCount);
  auto cursor = waiting.cursor(order[10]);
  for (unsigned i = 0; i < kCount; ++i) {
    if (i != 15 && i != 20) {
      (void)waiting.del(order[i]);
    }
  }
  EXPECT_EQ(cursor.key(), order[10]);
  cursor.settle();
  EXPECT_EQ(cursor.key(), order[15]);
  unsigned kept = 0;
  for (const NodePtr& wrapper : wrappers) {
    kept += wrapper->refCount() > 1 ? 1 : 0;
  }
  EXPECT_EQ(kept, 2U) << "those that are there";
  cursor.settle();
  EXPECT_EQ(cursor.key(), order[15]) << "it is there";
  cursor.advance();
  EXPECT_EQ(cursor.key(), order[20]);
  (void)waiting.del(order[20]);
  cursor.settle();
  EXPECT_TRUE(cursor.atEnd());
}

TYPED_TEST(Places, GiveEntriesAsRecordsBothWays) {
  using Entry = typename TypeParam::Entry;
  const Entry entry = this->entry(4, 7);
  Entry back;
  Brio::fromInspect(Brio::toInspect(entry), back, "entry");
  EXPECT_TRUE(back.isEq(entry));
  EXPECT_THAT(
      refusal([&] {
        Brio::fromInspect(InspectValue(InspectValue::Record{{"nonsense", 1U}}), back, "entry");
      }),
      HasSubstr("entry: no field 'nonsense'; there are: "));
}

// ---- one table with a resource

using OneTag = Places<KelpEmServer::Isem1Tag>;

TEST_F(OneTag, AKeyIsWrittenByItsFields) {
  const KelpTunnelNiLib::Isem1TagEntryKey key{3, 100};
  KelpTunnelNiLib::Isem1TagEntry entry;
  entry.logEntry.key = key;
  entry.rsrcKeys.inLifIdxKey.attachmentCircuit = 5;
  const auto handle = table_->entryWrite(key, entry, nullptr);
  EXPECT_EQ(nodeAt("KelpEmServer::Isem1TagKelpInterface/swTableSet[0]/"
                   "transientAddEntry[port=3,vlan=100]/entryHandle")
                .get(),
            handle.get());
  EXPECT_EQ(numberAt(tablePath() + "/transientAddEntry[vlan=0x64,port=3]/entry/logEntry/key/vlan"),
            100U);
  pass();
  const std::string sm = tablePath() + "/inLifIndexLinkage/entryUsageSm[attachmentCircuit=5]";
  EXPECT_EQ(numberAt(sm + "/resKey/attachmentCircuit"), 5U);
  EXPECT_EQ(at(sm + "/entryUsage[port=3,vlan=100]"), InspectValue(true));
  EXPECT_NE(nodeAt(tablePath() + "/entryHandleInLog[1]"), nullptr);
}

TEST_F(OneTag, ARoundTripIsJustALongerPath) {
  std::string path = tablePath();
  for (unsigned i = 0; i < 10; ++i) {
    path += "/inLifIndexLinkage/swTable";
  }
  EXPECT_EQ(nodeAt(path).get(), table_.get());
  for (unsigned i = 0; i < 30; ++i) {
    path += "/inLifIndexLinkage/swTable";
  }
  EXPECT_THAT(refusalOf(path), HasSubstr("64 steps at most"));
  EXPECT_THAT(refusalOf(std::string(5000, 'x')), HasSubstr("4096 characters at most"));
}

TEST_F(OneTag, AnErrorNamesThePlaceAndTheRemedy) {
  const std::string table = tablePath();
  EXPECT_THAT(refusalOf("Nobody/x"),
              HasSubstr("Nobody: no such root; there are: Asic::OrderedTableInterface, "));
  EXPECT_THAT(refusalOf(root() + "/swTableSets"),
              HasSubstr(root() + ": no attribute 'swTableSets' in Isem1TagKelpInterface; there "
                                 "are: tableName, "));
  EXPECT_THAT(refusalOf(root() + "/onDelete"), HasSubstr("no attribute 'onDelete'"));
  EXPECT_THAT(refusalOf(root() + "/swTableSet[7]"), HasSubstr("no member [7] among 1"));
  EXPECT_THAT(refusalOf(root() + "/tableName[7]"), HasSubstr("tableName: it has no members"));
  EXPECT_THAT(refusalOf(table + "[7]"),
              HasSubstr("name one of its collections: transientAddEntry"));
  EXPECT_THAT(refusalOf(table + "/transientAddEntry"),
              HasSubstr("name a member of it in brackets"));
  EXPECT_THAT(refusalOf(table + "/transientAddEntry/entry"), HasSubstr("in brackets"));
  EXPECT_THAT(refusalOf(table + "/transientAddEntry[port=70000]"),
              HasSubstr("transientAddEntry: key.port: 70000 is above the largest value, 65535"));
  EXPECT_THAT(refusalOf(table + "/transientAddEntry[vlan=5000]"), HasSubstr("4095"));
  EXPECT_THAT(refusalOf(table + "/transientAddEntry[lane=1]"),
              HasSubstr("no field 'lane'; there are: port, vlan"));
  EXPECT_THAT(refusalOf(table + "/transientAddEntry[3]"), HasSubstr("name=value"));
  EXPECT_THAT(refusalOf(table + "/clearTable"), HasSubstr("call it"));
  EXPECT_THAT(refusalOf(root() + "/tableName/x"), HasSubstr("no field 'x' in \"Isem1TagKelp\""));
  EXPECT_THAT(refusalOf(table + "/transientAddEntry[port=3"), HasSubstr("']' is wanted here"));
  EXPECT_THAT(refusalOf(table + "/transientAddEntry[]"), HasSubstr("a value is missing"));
  EXPECT_THAT(refusalOf(table + "//entryLog"), HasSubstr("<here>"));
  EXPECT_THAT(refusalOf(root() + "/swTableSet[0]entryLog"), HasSubstr("'/' is wanted here"));
  EXPECT_THAT(refusal([&] { (void)InspectPlace::find(table).count(); }),
              HasSubstr("no collection"));
  EXPECT_THAT(refusal([&] { (void)InspectPlace::find(table).write({1U}); }),
              HasSubstr("no attribute"));
  EXPECT_THAT(refusal([&] { (void)InspectPlace::find(table + "/entryLog").call({}); }),
              HasSubstr("no operation"));
  EXPECT_THAT(refusal([&] {
                (void)InspectPlace::find(root() + "/tableName").subscribe([](const auto&) {});
              }),
              HasSubstr("publishes no changes"));
  EXPECT_THAT(refusal([&] { InspectPlace::find(table + "/entryHandleInLog").del(1U); }),
              HasSubstr("not deleted"));
  // Nothing is below what is null.
  const std::string write = table + "/transientAddEntry" + keyText(1);
  table_->transientAddEntryIs(wrapper(1));
  EXPECT_EQ(nodeAt(write + "/inLifIdxKeyResPtr"), nullptr);
  EXPECT_THAT(refusalOf(write + "/inLifIdxKeyResPtr/entryState"), HasSubstr("null"));
}

TEST_F(OneTag, AnErrorSaysFromWhereOnNothingIsThere) {
  const auto missing = [](const std::string& path) -> std::string {
    try {
      (void)InspectPlace::find(path).read();
    } catch (const InspectError& error) {
      return error.missing();
    }
    return "nothing";
  };
  const std::string table = tablePath();
  EXPECT_EQ(missing("Nobody/x"), "Nobody");
  EXPECT_EQ(missing(root() + "/swTableSets/x"), root() + "/swTableSets");
  EXPECT_EQ(missing(root() + "/swTableSet[7]/stats"), root() + "/swTableSet[7]");
  EXPECT_EQ(missing(table + "/transientAddEntry[port=3,vlan=100]/entryHandle"),
            table + "/transientAddEntry[port=3,vlan=100]");
  // What is there, and can't be read.
  EXPECT_EQ(missing(table + "/transientAddEntry"), "");
  EXPECT_EQ(missing(table + "/transientAddEntry[port=70000]"), "");
  EXPECT_THROW((void)InspectPlace::find(table + "//x"), Brio::InspectSyntaxError);
}

TEST_F(OneTag, APathBehindAnOperationLeadsToSomethingNewEachTime) {
  EXPECT_TRUE(InspectPlace::find(tablePath()).leadsBack());
  EXPECT_TRUE(InspectPlace::find(tablePath() + "/transientAddEntry").leadsBack());
  const auto made = InspectPlace::find(tablePath() + "/getTableEntries_py");
  EXPECT_FALSE(made.leadsBack());
  EXPECT_FALSE(made.step("tableEntries").leadsBack());
  // From an object at hand it does.
  const InspectValue value = made.read();
  const auto from = InspectPlace::find("copy/tableEntries", [&](std::string_view name) {
    EXPECT_EQ(name, "copy");
    return *value.as<NodePtr>();
  });
  EXPECT_TRUE(from.leadsBack());
  EXPECT_EQ(from.count(), 0U);
}

TEST_F(OneTag, AWatchHearsNothingOfOtherFields) {
  unsigned told = 0;
  const auto watch = InspectPlace::find(tablePath() + "/transientAddEntry")
                         .subscribe([&](const InspectValue& key) {
                           EXPECT_EQ(key, Brio::toInspect(this->key(2)));
                           ++told;
                         });
  table_->markedKeyIs(key(1));
  table_->inMarkingStateIs(true);
  EXPECT_EQ(told, 0U);
  table_->transientAddEntryIs(wrapper(2));
  EXPECT_EQ(told, 1U);
}

// A key is told of by its type, whichever that is.
TEST_F(OneTag, AWatchHearsOfKeysOfEveryBuiltinType) {
  Lumen::ModuleInspectData::AttributeRow row{};
  row.fieldId = 60000;
  row.flags = Lumen::kInspectCollection;
  Lumen::ModuleInspectData module{};
  module.attributeTable = &row;
  const auto told = [&](std::int16_t keyType, const auto& key) {
    row.keyType = keyType;
    InspectValue value;
    const Brio::InspectSubscription watch(table_, Brio::InspectAttribute({&module, 0}),
                                          [&](const InspectValue& given) { value = given; });
    table_->publisher()->publishChange({60000}, &key);
    return value;
  };
  EXPECT_EQ(told(Lumen::kInspectBool, true), InspectValue(true));
  EXPECT_EQ(told(Lumen::kInspect8, std::uint8_t{200}), InspectValue(200U));
  EXPECT_EQ(told(Lumen::kInspect16, std::uint16_t{60000}), InspectValue(60000U));
  EXPECT_EQ(told(Lumen::kInspect32, 70000U), InspectValue(70000U));
  EXPECT_EQ(told(Lumen::kInspect64, ~std::uint64_t{0}), InspectValue(~std::uint64_t{0}));
  EXPECT_EQ(told(Lumen::kInspectString, Lumen::String("a")), InspectValue("a"));
}

using TwoResources = Places<KelpEmServer::EsemFodoVd>;

TEST_F(TwoResources, NestedKeysAndNamesAreWrittenOut) {
  KelpTunnelNiLib::EsemFodoVdEntry entry;
  entry.logEntry.key = key(1);
  entry.rsrcKeys.vlanEditProfileKey.elements[3].outerVlan = 17;
  entry.rsrcKeys.remarkProfileKey.intf = Netkit::IntfId::fromName("Ethernet3/1.100");
  (void)table_->entryWrite(key(1), entry, nullptr);
  pass();
  const std::string edits = tablePath() + "/vlanEditProfileLinkage/entryUsageSm[3={outerVlan=17}]";
  EXPECT_EQ(numberAt(edits + "/resKey[3]/outerVlan"), 17U);
  EXPECT_EQ(numberAt(edits + "/resKey[4]/outerVlan"), 0U);
  EXPECT_THAT(refusalOf(edits + "/resKey[34]/outerVlan"), HasSubstr("largest value, 33"));
  // What is at its default is left out of a path.
  const auto usages = InspectPlace::find(tablePath() + "/vlanEditProfileLinkage/entryUsageSm");
  EXPECT_EQ(usages.memberPath(usages.cursor().key()), edits);
  EXPECT_EQ(nodeAt(edits).get(), usages.cursor().value().as<NodePtr>()->get());
  const auto standard = Brio::toInspect(decltype(entry.rsrcKeys.vlanEditProfileKey){});
  EXPECT_EQ(usages.memberPath(standard), usages.path() + "[{}]");
  EXPECT_FALSE(usages.has(Brio::inspectParse("{}")));
  const std::string remarks =
      tablePath() + "/remarkProfileLinkage/entryUsageSm[intf=\"Ethernet3/1.100\"]";
  EXPECT_EQ(at(remarks + "/resKey/intf"), InspectValue("Ethernet3/1.100"));
  EXPECT_THAT(refusalOf(tablePath() + "/remarkProfileLinkage/entryUsageSm[intf=\"?\"]"),
              HasSubstr("key.intf: "));
}

// ---- the registry

TEST(Registry, ListsClassesAndTheirAttributes) {
  const auto table = Brio::InspectClass::find("KelpEmServer::Isem1TagKelpSwTable");
  ASSERT_TRUE(table);
  EXPECT_FALSE(Brio::InspectClass::find("KelpEmServer::Isem1TagKelpSwTabl"));
  const auto attributes = table->attributes();
  // All but the number that is not used and the one that is not served.
  EXPECT_EQ(attributes.size(), 20U);
  EXPECT_FALSE(table->attribute("handleInitialized"));
  const auto add = table->attribute("transientAddEntry");
  ASSERT_TRUE(add);
  EXPECT_EQ(add->id(), 899U);
  EXPECT_TRUE(add->isCollection());
  EXPECT_EQ(add->typeName(), "Isem1TagKelpEntryWrapper");
  EXPECT_EQ(add->typeName(add->row().keyType), "KelpTunnelNiLib::Isem1TagEntryKey");
  EXPECT_EQ(table->attribute("inMarkingState")->typeName(), "bool");
  const auto clear = table->attribute("clearTable");
  EXPECT_TRUE(clear->isOperation());
  ASSERT_EQ(clear->arguments().size(), 1U);
  EXPECT_EQ(clear->typeName(clear->arguments()[0].type), "bool");
  EXPECT_GE(Brio::InspectClass::all().size(), 90U);
}

TEST(Registry, ARootIsTakenOutByItselfAlone) {
  const auto one = Lumen::makeNode<Asic::NeededEntry>();
  const auto other = Lumen::makeNode<Asic::NeededEntry>();
  InspectRoots::rootIs("a root", one.get());
  InspectRoots::rootDel("a root", other.get());
  EXPECT_EQ(InspectRoots::root("a root").get(), one.get());
  InspectRoots::rootIs("a root", other.get());
  InspectRoots::rootDel("a root", one.get());
  EXPECT_EQ(InspectRoots::root("a root").get(), other.get());
  InspectRoots::rootDel("a root", other.get());
  EXPECT_EQ(InspectRoots::root("a root"), nullptr);
}

TEST(PathText, ValuesAreParsed) {
  using Brio::inspectParse;
  EXPECT_EQ(inspectParse("12"), InspectValue(12U));
  EXPECT_EQ(inspectParse("0x1f"), InspectValue(31U));
  EXPECT_EQ(inspectParse("18446744073709551615"), InspectValue(~std::uint64_t{0}));
  EXPECT_EQ(inspectParse("true"), InspectValue(true));
  EXPECT_TRUE(inspectParse("null").isNothing());
  EXPECT_EQ(inspectParse("\"12\""), InspectValue("12"));
  EXPECT_EQ(inspectParse("a=1,b={c=2,d=\"x,y\"}").text(), "{a=1,b={c=2,d=\"x,y\"}}");
  EXPECT_EQ(inspectParse("{a=1}").text(), "{a=1}");
  EXPECT_EQ(inspectParse("[1,{a=2},[]]").text(), "[1,{a=2},[]]");
  EXPECT_EQ(inspectParse(R"x("a\"\\]")x"), InspectValue(R"x(a"\])x"));
  for (const char* text : {R"x("a\"\\]/[")x", "[]", R"x([{a="]"},[[1]],true])x"}) {
    EXPECT_EQ(inspectParse(text).text(), text);
  }
  for (const char* wrong : {"", "18446744073709551616", "12x", "0x", "a=", "a=1,", "a=1,b", "{a=1",
                            "\"open", "a=1}", "1]", "[1", "[1 2]", "[1,", "\"a\\n\""}) {
    EXPECT_NE(refusal([&] { (void)inspectParse(wrong); }), "") << wrong;
  }
  std::string deep = "a=1";
  for (unsigned i = 0; i < 100; ++i) {
    deep = "a={" + deep + "}";
  }
  EXPECT_THAT(refusal([&] { (void)inspectParse(deep); }), HasSubstr("nested 16 deep"));
}

}  // namespace
