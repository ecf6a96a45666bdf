#include "Brio/MutatorException.h"
#include "InspectFixture.h"

// Reading, writing and calling by field id.

namespace {

using InspectTest::ask;
using InspectTest::classOf;
using InspectTest::FieldWatch;
using InspectTest::kDone;
using InspectTest::kNotValid;
using InspectTest::kUnknownField;
using InspectTest::NodePtr;
using InspectTest::read;
namespace Code = Lumen::Inspect;

template <class T>
class Inspected : public InspectTest::InspectFixture<T> {};
TYPED_TEST_SUITE(Inspected, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(Inspected, PlainAttributesAreRead) {
  auto& intf = *this->intf();
  const std::string name = std::string(TypeParam::name.view()) + "Kelp";
  EXPECT_EQ(read<Lumen::String>(intf, "tableName"), name);
  EXPECT_EQ(read<Asic::SwTableId>(intf, "tableId"), TypeParam::tableId);
  EXPECT_EQ(read<Lumen::String>(intf, "groupName"), "KelpEmServerGroup");
  EXPECT_FALSE(read<bool>(*this->table_, "inMarkingState"));
  EXPECT_FALSE(read<Asic::MajorVersion>(*this->table_, "transientRemoveAllVersion").valid());
}

TYPED_TEST(Inspected, ANodeIsReadWithAReferenceOfItsOwn) {
  auto& log = *this->intf()->entryLog();
  const auto before = log.refCount();
  {
    const auto held = read<NodePtr>(*this->intf(), "entryLog");
    EXPECT_EQ(held.get(), &log);
    EXPECT_EQ(log.refCount(), before + 1);
  }
  EXPECT_EQ(log.refCount(), before);
}

TYPED_TEST(Inspected, AWriteOfWhatIsOnlyReadIsNotValidAndChangesNothing) {
  const Lumen::String other = "other";
  Lumen::String result = "untouched";
  EXPECT_EQ(ask(*this->intf(), "tableName", Code::kWrite, &result, nullptr, {&other}), kNotValid);
  EXPECT_EQ(this->intf()->tableName(), std::string(TypeParam::name.view()) + "Kelp");
  EXPECT_EQ(result, "untouched");
  const NodePtr none;
  EXPECT_EQ(ask(*this->table_, "entryLog", Code::kWrite, nullptr, nullptr, {&none}), kNotValid);
  EXPECT_NE(this->table_->entryLog(), nullptr);
}

TYPED_TEST(Inspected, AWrongOperationIsNotValid) {
  auto& table = *this->table_;
  std::uint64_t result[8] = {};
  for (const unsigned char operation : {2, 3, 4, 5, 6, 7, 9, 10, 11, 27, 28, 255}) {
    EXPECT_EQ(ask(table, "inMarkingState", operation, result), kNotValid) << unsigned{operation};
  }
  for (const unsigned char operation : {0, 1, 2, 3, 4, 5, 28, 255}) {
    EXPECT_EQ(ask(table, "getTableEntries_py", operation, result), kNotValid);
  }
  for (const unsigned char operation : {6, 10, 27, 29}) {
    EXPECT_EQ(ask(table, "transientAddEntry", operation, result), kNotValid);
  }
  EXPECT_THAT(result, testing::Each(0U));
}

TYPED_TEST(Inspected, AFieldOfAnotherFamilyIsUnknown) {
  // 130 and 258 lie below the numbers of a table, 898 lies above those of an interface.
  auto& intf = *this->intf();
  auto& table = *this->table_;
  const auto ofTable = classOf(table);
  const auto ofIntf = classOf(intf);
  bool result = true;
  EXPECT_EQ(ofIntf.glue().inspectOperation(&result, &intf, ofTable.field("inMarkingState"),
                                           Code::kRead, nullptr, nullptr),
            kUnknownField);
  EXPECT_EQ(ofTable.glue().inspectOperation(&result, &table, ofIntf.field("tableName"), Code::kRead,
                                            nullptr, nullptr),
            kUnknownField);
  EXPECT_EQ(ofTable.glue().inspectOperation(&result, &table, {}, Code::kRead, nullptr, nullptr),
            kUnknownField);
  // The entry handle declares none of its own.
  const auto handle = TestFixture::Table::entryHandleFactory({}, this->key(1), &table);
  EXPECT_EQ(
      classOf(*handle).glue().inspectOperation(
          &result, handle.get(), ofTable.field("inMarkingState"), Code::kRead, nullptr, nullptr),
      kUnknownField);
  EXPECT_TRUE(result);
}

TYPED_TEST(Inspected, AStepOfAnObjectsLifeIsNotServed) {
  for (unsigned operation = 0; operation < 256; ++operation) {
    const auto code = static_cast<unsigned char>(operation);
    EXPECT_EQ(ask(*this->table_, "handleInitialized", code), kNotValid);
    EXPECT_EQ(ask(*this->intf(), "onDelete", code), kNotValid);
    // 906 is a number without an attribute.
    EXPECT_EQ(ask(*this->table_, "", code), kNotValid);
  }
}

TYPED_TEST(Inspected, AWritePublishesAsTheSetterDoes) {
  auto& table = *this->table_;
  FieldWatch watch(table.publisher(), 917);
  const bool on = true;
  EXPECT_EQ(ask(table, "inMarkingState", Code::kWrite, nullptr, nullptr, {&on}), kDone);
  EXPECT_TRUE(table.inMarkingState());
  EXPECT_EQ(watch.changes(), 1U);
  EXPECT_EQ(ask(table, "inMarkingState", Code::kWrite, nullptr, nullptr, {&on}), kDone);
  EXPECT_EQ(watch.changes(), 1U) << "an equal value";
  EXPECT_EQ(ask(table, "inMarkingState", Code::kWrite), kNotValid) << "no arguments";
  EXPECT_TRUE(table.inMarkingState());

  FieldWatch helpers(table.publisher(), 898);
  NodePtr made;
  classOf(*table.swTableHelper()).glue().construct(&made, nullptr);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(ask(table, "swTableHelper", Code::kWrite, nullptr, nullptr, {&made}), kDone);
  EXPECT_EQ(table.swTableHelper().get(), made.get());
  EXPECT_EQ(helpers.changes(), 1U);
}

TYPED_TEST(Inspected, AMapIsAddedToLookedUpCountedAndDeletedFrom) {
  auto& table = *this->table_;
  FieldWatch watch(table.publisher(), 899);
  const NodePtr one = this->wrapper(1);
  const auto key = this->key(1);
  const auto other = this->key(2);
  std::uint32_t count = 9;
  EXPECT_EQ(ask(table, "transientAddEntry", Code::kCount, &count), kDone);
  EXPECT_EQ(count, 0U);
  EXPECT_EQ(ask(table, "transientAddEntry", Code::kWrite, nullptr, nullptr, {&one}), kDone);
  EXPECT_EQ(watch.changes(), 1U);
  EXPECT_EQ(table.transientAddEntry(key).get(), one.get());
  EXPECT_EQ(ask(table, "transientAddEntry", Code::kCount, &count), kDone);
  EXPECT_EQ(count, 1U);
  EXPECT_EQ(ask(table, "transientAddEntry", Code::kSecondSize, &count), kDone);
  EXPECT_GE(count, 1U);
  for (const unsigned char operation : {Code::kRead, Code::kLookup}) {
    NodePtr found;
    EXPECT_EQ(ask(table, "transientAddEntry", operation, &found, &key), kDone);
    EXPECT_EQ(found.get(), one.get());
    EXPECT_EQ(ask(table, "transientAddEntry", operation, &found, &other), kDone);
    EXPECT_EQ(found.get(), nullptr);
    EXPECT_EQ(ask(table, "transientAddEntry", operation, &found), kNotValid) << "no key";
  }
  bool has = false;
  EXPECT_EQ(ask(table, "transientAddEntry", Code::kHas, &has, &key), kDone);
  EXPECT_TRUE(has);
  EXPECT_EQ(ask(table, "transientAddEntry", Code::kHas, &has, &other), kDone);
  EXPECT_FALSE(has);
  NodePtr old;
  EXPECT_EQ(ask(table, "transientAddEntry", Code::kDelete, &old, &key), kDone);
  EXPECT_EQ(old.get(), one.get());
  EXPECT_EQ(watch.changes(), 2U);
  EXPECT_EQ(ask(table, "transientAddEntry", Code::kDelete, &old, &key), kDone);
  EXPECT_EQ(old.get(), nullptr);
  EXPECT_EQ(watch.changes(), 2U) << "nothing was there";
}

TYPED_TEST(Inspected, AnAbsentVersionIsTheInvalidOne) {
  auto& table = *this->table_;
  const auto key = this->key(1);
  Asic::EntryVersion version;
  EXPECT_EQ(ask(table, "transientVersionForKey", Code::kLookup, &version, &key), kDone);
  EXPECT_FALSE(version.valid());
  const Asic::EntryVersion given{7, 0};
  EXPECT_EQ(ask(table, "transientVersionForKey", Code::kWrite, nullptr, nullptr, {&key, &given}),
            kDone);
  EXPECT_EQ(ask(table, "transientVersionForKey", Code::kLookup, &version, &key), kDone);
  EXPECT_EQ(version.majorVersion, 7U);
  EXPECT_EQ(ask(table, "transientVersionForKey", Code::kDelete, &version, &key), kDone);
  EXPECT_EQ(version.majorVersion, 7U);
  EXPECT_TRUE(table.transientVersionForKey().empty());
}

TYPED_TEST(Inspected, OfASetAReadTellsWhetherTheKeyIsThere) {
  auto& table = *this->table_;
  const auto key = this->key(1);
  bool has = true;
  for (const unsigned char operation : {Code::kRead, Code::kHas, Code::kLookup}) {
    EXPECT_EQ(ask(table, "markedKey", operation, &has, &key), kDone);
    EXPECT_FALSE(has);
  }
  EXPECT_EQ(ask(table, "markedKey", Code::kWrite, nullptr, nullptr, {&key}), kDone);
  EXPECT_EQ(ask(table, "markedKey", Code::kRead, &has, &key), kDone);
  EXPECT_TRUE(has);
  EXPECT_EQ(ask(table, "markedKey", Code::kDelete, &has, &key), kDone);
  EXPECT_TRUE(has) << "it was there";
  EXPECT_EQ(ask(table, "markedKey", Code::kDelete, &has, &key), kDone);
  EXPECT_FALSE(has);
}

TYPED_TEST(Inspected, TheQueueIsReadByIndex) {
  auto& table = *this->table_;
  this->commit(this->table_, 1);
  this->commit(this->table_, 2);
  std::uint32_t count = 0;
  EXPECT_EQ(ask(table, "entryHandleInLog", Code::kCount, &count), kDone);
  EXPECT_EQ(count, 2U);
  const std::uint32_t first = table.entryHandleInLog().frontIndex();
  NodePtr handle;
  EXPECT_EQ(ask(table, "entryHandleInLog", Code::kLookup, &handle, &first), kDone);
  EXPECT_EQ(handle.get(), table.entryHandleInLogFront().get());
  EXPECT_EQ(ask(table, "entryHandleInLog", Code::kWrite, nullptr, nullptr, {&handle}), kNotValid);
  EXPECT_EQ(ask(table, "entryHandleInLog", Code::kDelete, nullptr, &first), kNotValid);
}

TYPED_TEST(Inspected, AnOperationIsCalledWithItsArguments) {
  this->commit(this->table_, 1);
  auto& log = *this->intf()->entryLog();
  const auto key = this->key(1);
  const auto other = this->key(2);
  const Asic::UnitId unit{0};
  bool has = false;
  EXPECT_EQ(ask(log, "entryHas", Code::kCall, &has, nullptr, {&key, &unit}), kDone);
  EXPECT_TRUE(has);
  EXPECT_EQ(ask(log, "entryHas", Code::kCall, &has, nullptr, {&other, &unit}), kDone);
  EXPECT_FALSE(has);
  Asic::LogVersion version;
  EXPECT_EQ(ask(log, "entryLogVersion", Code::kCall, &version, nullptr, {&key, &unit}), kDone);
  EXPECT_EQ(version.value, 1U);
  // A node comes with a reference; a second call on the same unit gives the same table.
  const NodePtr noHelper;
  const bool reset = false;
  NodePtr made;
  EXPECT_EQ(
      ask(*this->intf(), "makeSwTable", Code::kCall, &made, nullptr, {&unit, &noHelper, &reset}),
      kDone);
  EXPECT_EQ(made.get(), this->table_.get());
  // No arguments where some are wanted; and an operation whose result nobody wants.
  EXPECT_EQ(ask(log, "entryHas", Code::kCall, &has), kNotValid);
  EXPECT_EQ(ask(log, "entryHas", Code::kCall, nullptr, nullptr, {&key, &unit}), kDone);
  NodePtr intf;
  const NodePtr agent(this->agent_);
  EXPECT_EQ(ask(*this->intf(), "getIntf", Code::kCall, &intf, nullptr, {&agent}), kDone);
  EXPECT_EQ(intf.get(), this->intf().get());
}

TYPED_TEST(Inspected, WhatAnOperationThrowsComesOut) {
  auto& table = *this->table_;
  const NodePtr none;
  EXPECT_THROW(ask(table, "transientAddEntry", Code::kWrite, nullptr, nullptr, {&none}),
               Brio::MutatorException);
  for (const NodePtr& linkage : this->linkages()) {
    EXPECT_THROW(ask(*linkage, "entryUsageSm", Code::kWrite, nullptr, nullptr, {&none}),
                 Brio::MutatorException);
  }
}

TYPED_TEST(Inspected, ALinkageIsDriven) {
  for (const NodePtr& linkage : this->linkages()) {
    Lumen::Node* back = nullptr;
    EXPECT_EQ(ask(*linkage, "swTable", Code::kRead, &back), kDone);
    EXPECT_EQ(back, this->table_.get());
    // The state of resolution is one byte.
    const NodePtr wrapper = this->wrapper(1);
    std::uint8_t state[3] = {0xaa, 0xaa, 0xaa};
    EXPECT_EQ(ask(*linkage, "entryResolutionState", Code::kCall, &state[1], nullptr, {&wrapper}),
              kDone);
    EXPECT_THAT(state, testing::ElementsAre(0xaa, 4, 0xaa));
    NodePtr needed;
    EXPECT_EQ(ask(*linkage, "getNeededEntrySet", Code::kCall, &needed, nullptr, {&wrapper}), kDone);
    ASSERT_NE(needed, nullptr);
    EXPECT_EQ(needed->refCount(), 1U);
    for (unsigned operation = 0; operation < 256; ++operation) {
      const auto code = static_cast<unsigned char>(operation);
      EXPECT_EQ(ask(*linkage, "resourceKeyFromEntry", code), kNotValid);
      EXPECT_EQ(ask(*linkage, "resourceHandle", code), kNotValid);
    }
  }
}

TYPED_TEST(Inspected, AClassIsMadeFromTheArgumentsOfItsFactory) {
  const auto entry = this->entry(3);
  const NodePtr handle =
      TestFixture::Table::entryHandleFactory({}, this->key(3), this->table_.get());
  void* args[] = {const_cast<typename TestFixture::Entry*>(&entry), const_cast<NodePtr*>(&handle)};
  NodePtr made;
  classOf(*this->wrapper(1)).glue().construct(&made, args);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(made->refCount(), 1U);
  EXPECT_TRUE(read<typename TestFixture::Entry>(*made, "entry").isEq(entry));
  EXPECT_EQ(read<NodePtr>(*made, "entryHandle").get(), handle.get());
  // Nobody makes an interface but getIntf.
  EXPECT_EQ(classOf(*this->intf()).glue().construct, nullptr);
}

TYPED_TEST(Inspected, EveryServedAttributeAnswersSomethingAndNoOtherDoes) {
  // Each class, each attribute, by the codes that its flags promise and that change nothing.
  const NodePtr wrapper = this->wrapper(1);
  std::vector<NodePtr> objects{NodePtr(this->intf()), NodePtr(this->intf()->entryLog()),
                               NodePtr(this->table_), wrapper,
                               NodePtr(this->table_->swTableHelper())};
  for (const NodePtr& linkage : this->linkages()) {
    objects.push_back(linkage);
  }
  for (const NodePtr& object : objects) {
    const auto of = classOf(*object);
    for (unsigned i = 0; i < of.row().attributes; ++i) {
      const auto& row = of.attribute(i);
      const auto answers = [&](unsigned char operation) {
        return of.glue().inspectOperation(nullptr, object.get(),
                                          {of.module, of.row().firstAttribute + i}, operation,
                                          nullptr, nullptr) == kDone;
      };
      const bool served = (row.flags & Lumen::kInspectServed) != 0;
      const bool operation = (row.flags & Lumen::kInspectOperation) != 0;
      const bool collection = !operation && (row.flags & Lumen::kInspectCollection) != 0;
      EXPECT_EQ(answers(Code::kRead), served && !operation && !collection) << of.nameOf(i);
      EXPECT_EQ(answers(Code::kCount), served && collection) << of.nameOf(i);
    }
  }
}

}  // namespace
