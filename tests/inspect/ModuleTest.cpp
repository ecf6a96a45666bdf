#include <algorithm>

#include "InspectFixture.h"

// What the type modules say of the classes of every table, against a list written by hand.

namespace {

using InspectTest::ClassOf;
using InspectTest::Module;

constexpr unsigned kServed = 0x0800;
constexpr unsigned kStored = 0x0400;
constexpr unsigned kPtr = 0x0020;
constexpr unsigned kOperation = 0x0010;
constexpr unsigned kColl = 0x0001;
constexpr unsigned kMutating = 0x0001;
constexpr unsigned kKnownFlags = kServed | kStored | kPtr | kOperation | kColl;

// Codes of types; kRow stands for a row in the dependency table.
constexpr int kRow = 0;
constexpr int kNothing = -4;
constexpr int kByte = -5;
constexpr int k16 = -7;
constexpr int k32 = -9;
constexpr int kBool = -13;
constexpr int kString = -17;
constexpr int kNoKey = -1;

struct Row {
  unsigned id;
  std::string name;
  unsigned flags;
  int type;
  int key = kNoKey;

  friend bool operator==(const Row&, const Row&) = default;
  friend std::ostream& operator<<(std::ostream& out, const Row& row) {
    return out << row.id << ' ' << row.name << " flags " << std::hex << row.flags << std::dec
               << " type " << row.type << " key " << row.key;
  }
};
using Rows = std::vector<Row>;

// Numbers rows from `first` on.
Rows numbered(unsigned first, Rows rows) {
  for (Row& row : rows) {
    row.id = first++;
  }
  return rows;
}
Rows joined(std::initializer_list<Rows> parts) {
  Rows all;
  for (const Rows& part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

Rows rowsOf(const ClassOf& of) {
  Rows rows;
  for (unsigned i = 0; i < of.row().attributes; ++i) {
    const Module::AttributeRow& row = of.attribute(i);
    rows.push_back({row.fieldId, of.nameOf(i), row.flags & kKnownFlags, std::min<int>(row.type, 0),
                    std::min<int>(row.keyType, 0)});
  }
  return rows;
}

template <class T>
class Modules : public testing::Test {
 public:
  // A table's name and what is in its keys.
  static std::string table() { return std::string(T::name.view()) + "Kelp"; }
  static int key() {
    using Key = typename T::Entry::Key;
    return !std::is_integral_v<Key> ? kRow : sizeof(Key) == 2 ? k16 : k32;
  }
  static bool hasInLif() {
    return T::name.view() == "Isem1Tag" || T::name.view() == "Isem2Tag" ||
           T::name.view() == "IsemMpls" || T::name.view() == "IsemUntagged";
  }
  static bool hasTwo() { return T::name.view() == "EsemFodoVd"; }

  static ClassOf find(std::string_view unit, unsigned index) {
    const std::string name = "_" + table() + std::string(unit) + "_";
    for (const std::string_view module : Module::names()) {
      if (module.starts_with(name)) {
        const Module* found = Module::find(module);
        EXPECT_LT(index, found->classes()) << module;
        return {found, index};
      }
    }
    return {};
  }
  static void expectClass(std::string_view unit, unsigned index, const std::string& name,
                          const Rows& rows) {
    const ClassOf of = find(unit, index);
    ASSERT_NE(of.module, nullptr) << unit;
    EXPECT_EQ(of.name(), "KelpEmServer::" + table() + name);
    EXPECT_EQ(rowsOf(of), rows);
  }
  static Rows wrapperResources() {
    if (hasInLif()) {
      const std::string second = T::name.view() == "IsemMpls" ? "inLif23Index" : "inLif1Index";
      return {{0, "inLifIdxKey", kServed, kRow},
              {0, "inLifIdxKeyResPtr", kServed | kStored | kPtr, kRow},
              {0, "inLif0Index", kServed | kOperation, k32},
              {0, second, kServed | kOperation, k32}};
    }
    if (hasTwo()) {
      return {{0, "vlanEditProfileKey", kServed, kRow},
              {0, "vlanEditProfileKeyResPtr", kServed | kStored | kPtr, kRow},
              {0, "vlanEditProfile", kServed | kOperation, kByte},
              {0, "remarkProfileType", kServed, k16},
              {0, "remarkProfileKey", kServed, kRow},
              {0, "remarkProfileKeyResPtr", kServed | kStored | kPtr, kRow},
              {0, "remarkProfile", kServed | kOperation, kByte}};
    }
    return {};
  }
  static Rows linkageAttributes() {
    constexpr unsigned kFlags = kServed | kStored | kPtr;
    if (hasInLif()) {
      return {{0, "inLifIndexLinkage", kFlags, kRow}};
    }
    if (hasTwo()) {
      return {{0, "vlanEditProfileLinkage", kFlags, kRow},
              {0, "remarkProfileLinkage", kFlags, kRow}};
    }
    return {};
  }
};
TYPED_TEST_SUITE(Modules, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(Modules, TellOfTheInterface) {
  constexpr unsigned kValue = kServed | kStored;
  constexpr unsigned kNode = kServed | kStored | kPtr;
  this->expectClass(
      "Interface", 0, "Interface",
      numbered(258, {{0, "tableName", kValue, kString},
                     {0, "tableId", kServed, kRow},
                     {0, "groupName", kValue, kString},
                     {0, "agentName", kValue, kString},
                     {0, "tableNamespace", kValue, kString},
                     {0, "entryLog", kNode, kRow},
                     {0, "swTableStatus", kNode, kRow},
                     {0, "swTableSet", kNode, kRow},
                     {0, "makeSwTable", kServed | kOperation | kMutating | kPtr, kRow},
                     {0, "getIntf", kServed | kOperation | kMutating | kPtr, kRow},
                     {0, "handleInitialized", kOperation | kMutating, kNothing},
                     {0, "onDelete", kOperation | kMutating, kNothing}}));
}

TYPED_TEST(Modules, TellOfTheEntryLog) {
  constexpr unsigned kAsk = kServed | kOperation;
  constexpr unsigned kDo = kServed | kOperation | kMutating;
  this->expectClass(
      "EntryLog", 0, "EntryLog",
      numbered(258, {{0, "tableEntryLog", kServed | kStored | kPtr, kRow},
                     {0, "tableConfigQuilt", kServed | kStored | kPtr | kColl, kRow, kRow},
                     {0, "entryIs", kDo, kRow},
                     {0, "entryDel", kDo, kRow},
                     {0, "tableDel", kDo, kRow},
                     {0, "entry", kAsk, kRow},
                     {0, "entryHas", kAsk, kBool},
                     {0, "entryRsrcKeys", kAsk, kRow},
                     {0, "entryLogVersion", kAsk, kRow},
                     {0, "entrys", kAsk, k32},
                     {0, "entrysInDeletion", kAsk, k32},
                     {0, "cleanupEntryLog", kDo, kNothing},
                     {0, "mountQuiltChangeLog", kDo, kNothing},
                     {0, "mountQuiltConfig", kDo, kNothing},
                     {0, "handleInitialized", kOperation | kMutating, kNothing}}));
}

TYPED_TEST(Modules, TellOfTheWrapperAndTheResolverEntry) {
  constexpr unsigned kDo = kServed | kOperation | kMutating;
  this->expectClass("InfraTypes", 0, "EntryWrapper",
                    numbered(130, joined({{{0, "entry", kServed | kStored, kRow},
                                           {0, "entryHandle", kServed | kStored | kPtr, kRow},
                                           {0, "key", kServed, this->key()},
                                           {0, "logEntry", kServed, kRow},
                                           {0, "rsrcKeys", kServed, kRow}},
                                          this->wrapperResources(),
                                          {{0, "setResolvedFields", kDo, kNothing},
                                           {0, "retrieveClientData", kDo, kNothing},
                                           {0, "finalizeOnSuccess", kDo, kNothing},
                                           {0, "finalizeOnFailure", kDo, kBool}}})));
  this->expectClass("InfraTypes", 1, "ResolverEntry",
                    {{258, "swTable", kServed | kStored, kRow},
                     {259, "swTableEntry", kServed | kStored | kPtr, kRow}});
}

TYPED_TEST(Modules, TellOfTheHelper) {
  constexpr unsigned kDo = kServed | kOperation | kMutating;
  this->expectClass("SwTableHelperBase", 0, "SwTableHelperBase",
                    {{130, "finalizeOnSuccess", kDo, kNothing},
                     {131, "finalizeOnFailure", kDo, kBool},
                     {132, "finalizeOnResourceUpdate", kDo, kBool}});
}

TYPED_TEST(Modules, TellOfTheSoftwareTable) {
  constexpr unsigned kNode = kServed | kStored | kPtr;
  constexpr unsigned kAsk = kServed | kOperation;
  constexpr unsigned kDo = kServed | kOperation | kMutating;
  const int key = this->key();
  this->expectClass(
      "SwTable", 0, "SwTable",
      numbered(898, joined({{{0, "swTableHelper", kNode, kRow},
                             {0, "transientAddEntry", kNode | kColl, kRow, key},
                             {0, "transientRemoveEntry", kNode | kColl, kRow, key},
                             {0, "transientVersionForKey", kServed | kStored | kColl, kRow, key},
                             {0, "transientRemoveAllVersion", kServed | kStored, kRow},
                             {0, "getTableEntries_py", kAsk | kPtr, kRow},
                             {0, "entryLog", kNode, kRow},
                             {0, "groupResolver", kNode, kRow},
                             {0, "", 0, kNothing},
                             {0, "entryHandleInLog", kNode | kColl, kRow, k32},
                             {0, "commitEntry", kDo, kNothing},
                             {0, "updateEntry", kDo | kPtr, kRow},
                             {0, "getNeededEntrySet", kDo | kPtr, kRow},
                             {0, "isResolverEntryResolved", kDo, kBool},
                             {0, "setRsrcPtrs", kDo, kNothing},
                             {0, "entryFromConfig", kAsk, kRow},
                             {0, "restoreEntries", kDo, kNothing},
                             {0, "clearTable", kDo, kNothing},
                             {0, "markedKey", kServed | kStored | kColl, kBool, key},
                             {0, "inMarkingState", kServed | kStored, kBool}},
                            this->linkageAttributes(),
                            {{0, "handleInitialized", kOperation | kMutating, kNothing}}})));
  this->expectClass("SwTable", 1, "SwTable::EntryHandle", {});
  this->expectClass("SwTable", 2, "SwTableIteratorState",
                    {{386, "bookmarkKey", kServed | kStored, key}});
  this->expectClass("SwTable", 3, "SwTable::SwTableEntries_py",
                    {{130, "tableEntries", kServed | kStored | kColl, kRow, key}});
}

TYPED_TEST(Modules, TellOfTheLinkages) {
  constexpr unsigned kAsk = kServed | kOperation;
  constexpr unsigned kDo = kServed | kOperation | kMutating;
  const Rows sm{{130, "resPtr", kServed | kStored | kPtr, kRow},
                {131, "parent", kServed | kStored, kRow},
                {132, "swTable", kServed, kRow},
                {133, "resKey", kServed, kRow},
                {134, "entryUsage", kServed | kStored | kColl, kBool, this->key()},
                {135, "handleResourceChange", kDo, kNothing}};
  const Rows linkage{{130, "swTable", kServed | kStored, kRow},
                     {131, "resTblClient", kServed | kStored | kPtr, kRow},
                     {132, "updateLocalUsage", kDo, kNothing},
                     {133, "entryResolutionState", kAsk, kByte},
                     {134, "resolveEntry", kDo, kNothing},
                     {135, "getNeededEntrySet", kAsk | kPtr, kRow},
                     {136, "restoreEntry", kDo, kNothing},
                     {137, "handleResourceChangeAtInit", kDo, kNothing},
                     {138, "entryUsageSm", kServed | kStored | kPtr | kColl, kRow, kRow},
                     {139, "resourceKey", kAsk, kRow},
                     {140, "resourceKeyFromEntry", kOperation, kRow},
                     {141, "resourceHandle", kOperation | kPtr, kRow},
                     {142, "setResourceHandle", kDo, kNothing}};
  const auto expectPair = [&](unsigned first, const std::string& name) {
    this->expectClass("ResourceTableLinkage", first, name + "::LocalUsageUpdateSm", sm);
    this->expectClass("ResourceTableLinkage", first + 1, name, linkage);
  };
  if (this->hasInLif()) {
    expectPair(0, "InLifIndexLinkage");
    EXPECT_EQ(this->find("ResourceTableLinkage", 0).module->classes(), 2U);
  } else if (this->hasTwo()) {
    expectPair(0, "VlanEditProfileLinkage");
    expectPair(2, "RemarkProfileLinkage");
    EXPECT_EQ(this->find("ResourceTableLinkage", 0).module->classes(), 4U);
  } else {
    EXPECT_EQ(this->find("ResourceTableLinkage", 0).module, nullptr);
  }
}

// ---- what holds of every module

TEST(EveryModule, HasASortedPoolOfNamesWithTheEmptyOneFirst) {
  ASSERT_GE(Module::names().size(), 45U);
  for (const std::string_view name : Module::names()) {
    const Module& module = *Module::find(name);
    std::vector<std::string> names;
    std::size_t longest = 0;
    for (unsigned c = 0; c < module.classes(); ++c) {
      const Module::ClassRow& row = module.classTable[c];
      for (unsigned i = 0; i < row.attributes; ++i) {
        longest =
            std::max<std::size_t>(longest, module.attributeTable[row.firstAttribute + i].name);
      }
    }
    EXPECT_EQ(module.attributeNames[0], '\0') << name;
    for (std::size_t at = 1; at <= longest; at += names.back().size() + 1) {
      names.emplace_back(module.attributeNames + at);
    }
    EXPECT_TRUE(std::is_sorted(names.begin(), names.end())) << name;
    EXPECT_EQ(std::adjacent_find(names.begin(), names.end()), names.end()) << name;
  }
}

TEST(EveryModule, HasConsecutiveNumbersOfItsClasses) {
  for (const std::string_view name : Module::names()) {
    const Module& module = *Module::find(name);
    unsigned next = 0;
    for (unsigned c = 0; c < module.classes(); ++c) {
      const Module::ClassRow& row = module.classTable[c];
      EXPECT_EQ(row.firstAttribute, next) << name;
      for (unsigned i = 1; i < row.attributes; ++i) {
        EXPECT_EQ(module.attributeTable[next + i].fieldId, module.attributeTable[next].fieldId + i);
      }
      next += row.attributes;
    }
  }
}

TEST(EveryModule, NamesClassesOfLoadedModulesInItsDependencies) {
  unsigned others = 0;
  for (const std::string_view name : Module::names()) {
    const Module& module = *Module::find(name);
    for (unsigned c = 0; c < module.classes(); ++c) {
      const ClassOf of{&module, c};
      for (unsigned i = 0; i < of.row().attributes; ++i) {
        if (of.attribute(i).type < 0) {
          continue;
        }
        const Module::Dependency& on = module.dependencyTable[of.attribute(i).type];
        EXPECT_NE(on.value == nullptr, on.isA == nullptr);
        if (!on.type->module.empty()) {
          const ClassOf other{Module::find(on.type->module), on.type->classIndex};
          ASSERT_NE(other.module, nullptr) << on.type->module;
          EXPECT_TRUE(other.name().ends_with(on.type->className));
          others += other.module == &module ? 0 : 1;
        }
      }
    }
  }
  EXPECT_GT(others, 20U);
}

TEST(EveryModule, TellsOfTheArgumentsInTheirOrder) {
  for (const std::string_view name : Module::names()) {
    if (!name.starts_with("_Isem1TagKelpInterface_")) {
      continue;
    }
    const ClassOf of{Module::find(name), 0};
    const auto& make = of.module->attributeTable[of.field("makeSwTable").attribute];
    const Module::ArgumentRow* args = of.module->argumentTable + make.arguments;
    ASSERT_GE(args[0].type, 0);
    EXPECT_EQ(of.module->dependencyTable[args[0].type].type->className, "Asic::UnitId");
    ASSERT_GE(args[1].type, 0);
    EXPECT_EQ(of.module->dependencyTable[args[1].type].type->className,
              "Isem1TagKelpSwTableHelperBase");
    EXPECT_EQ(args[1].flags, kPtr);
    EXPECT_EQ(args[2].type, kBool);
    EXPECT_EQ(args[3].type, kNoKey);
    return;
  }
  FAIL() << "no module";
}

}  // namespace
