#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <set>

#include "BrioSharedMem/EntityPath.h"
#include "TestRecords.h"

namespace StoreTest {
namespace {

using BrioSharedMem::BrioSharedMemType;
using BrioSharedMem::EntityManager;
using BrioSharedMem::StoreError;
using testing::HasSubstr;

// The text of the StoreError that `body` throws; a failure if it throws none.
template <class Body>
std::string errorOf(Body&& body) {
  try {
    body();
  } catch (const StoreError& error) {
    return error.what();
  }
  ADD_FAILURE() << "no StoreError";
  return {};
}

std::string bytesOf(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

void overwrite(const std::filesystem::path& file, std::uint64_t offset, const std::string& bytes) {
  std::fstream stream(file, std::ios::binary | std::ios::in | std::ios::out);
  stream.seekp(static_cast<std::streamoff>(offset));
  stream << bytes;
  ASSERT_TRUE(stream.good());
}

std::set<std::string> filesIn(const std::filesystem::path& folder) {
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    names.insert(entry.path().filename().string());
  }
  return names;
}

TEST(Mount, TheFirstMountIsEmptyAndNotWiped) {
  Store store;
  const auto entity = store.mount<LogQuilt>("a/b/log", 10);
  ASSERT_NE(entity, nullptr);
  const auto control = entity->collectionControl();
  EXPECT_FALSE(control->wiped());
  EXPECT_EQ(control->scratchpad(), 0U);
  EXPECT_EQ(control->announced(), 0U);
  EXPECT_EQ(control->published(), 0U);
  EXPECT_NE(control->incarnation(), 0U);
  EXPECT_EQ(entity->map().size(), 0U);
  EXPECT_EQ(entity->map().path(), "a/b/log");
  EXPECT_EQ(entity->map().collectionName(), "records");
  EXPECT_EQ(entity->entityName(), "a/b/log");
}

TEST(Mount, FilesAndFoldersAreForTheOwnerAndHerGroup) {
  Store store;
  static_cast<void>(store.mount<LogQuilt>("a/log", 10));
  struct stat status {};
  ASSERT_EQ(::stat(store.file("a/log").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0640U);
  ASSERT_EQ(::stat((store.folder() / "a/log.register").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0640U);
  ASSERT_EQ(::stat((store.folder() / "a").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0750U);
  ASSERT_EQ(::stat(store.folder().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0750U);
}

TEST(Mount, RecordsAndWordsOutliveTheirWriter) {
  Store store;
  auto entity = store.mount<LogQuilt>("log", 10);
  entity->map().recordIs(LogRecord::of(3));
  entity->map().recordIs(LogRecord::of(4));
  entity->map().recordDel(3);
  auto control = entity->collectionControl();
  control->scratchpadIs(4);
  control->announcedIs(5);
  control->publishedIs(3);
  const std::uint64_t incarnation = control->incarnation();
  EXPECT_THAT(errorOf([&] { store.remount(entity, "log", 10); }), HasSubstr("this process"))
      << "a control block in use keeps its file, and with it the writer's lock";
  control = nullptr;
  store.remount(entity, "log", 10);
  const auto again = entity->collectionControl();
  EXPECT_EQ(again->scratchpad(), 4U);
  EXPECT_EQ(again->announced(), 5U);
  EXPECT_EQ(again->published(), 3U);
  EXPECT_EQ(again->incarnation(), incarnation);
  EXPECT_FALSE(again->wiped());
  EXPECT_EQ(entity->map().size(), 1U);
  bool found = false;
  EXPECT_EQ(entity->map().find(4, found), LogRecord::of(4));
}

TEST(Mount, ASecondMountInTheProcessIsTheSameEntity) {
  Store store;
  const auto first = store.mount<LogQuilt>("log", 10);
  const auto second = store.mount<LogQuilt>("log", 10);
  EXPECT_EQ(first, second);
  const auto sameManager = EntityManager::getEntityManager(store.manager()->name(), false);
  EXPECT_EQ(sameManager, store.manager());
  EXPECT_EQ(sameManager->getEntity("log"), first);
  EXPECT_EQ(sameManager->getEntity("other"), nullptr);
  const std::string error =
      errorOf([&] { static_cast<void>(store.mount<ConfigQuilt>("log", 10)); });
  EXPECT_THAT(error, HasSubstr("log: mounted already as a StoreTest::LogQuilt"));
}

// Each reason for which a collection comes back wiped.

struct Wiping {
  const char* name;
  void (*harm)(const std::filesystem::path& file);
  bool keepsRecords;
};

void PrintTo(const Wiping& wiping, std::ostream* out) { *out << wiping.name; }

class Wiped : public testing::TestWithParam<Wiping> {};

TEST_P(Wiped, IsReportedUntilItIsClearedAndTheOldFileIsSetAside) {
  Store store;
  auto entity = store.mount<LogQuilt>("a/log", 10);
  for (std::uint64_t version = 1; version <= 5; ++version) {
    entity->map().recordIs(LogRecord::of(version));
  }
  entity->collectionControl()->scratchpadIs(5);
  const std::uint64_t incarnation = entity->collectionControl()->incarnation();
  auto neighbour = store.mount<LogQuilt>("a/other", 10);
  neighbour->map().recordIs(LogRecord::of(1));
  const auto oldReader = store.reader<LogQuilt>("a/log");
  entity = nullptr;
  store.manager()->entityDelAll();

  GetParam().harm(store.file("a/log"));
  const std::string before =
      std::filesystem::exists(store.file("a/log")) ? bytesOf(store.file("a/log")) : "";
  entity = store.mount<LogQuilt>("a/log", 10);
  EXPECT_TRUE(entity->collectionControl()->wiped());
  EXPECT_NE(entity->collectionControl()->incarnation(), incarnation);
  EXPECT_FALSE(entity->map().damaged());
  EXPECT_EQ(entity->map().size(), GetParam().keepsRecords ? 5U : 0U);
  EXPECT_EQ(entity->collectionControl()->scratchpad(), GetParam().keepsRecords ? 5U : 0U);
  EXPECT_TRUE(oldReader->replaced());
  // Seen again by who comes after a writer that died before it cleared the report.
  store.remount(entity, "a/log", 10);
  EXPECT_TRUE(entity->collectionControl()->wiped());
  entity->collectionControl()->clearWiped();
  store.remount(entity, "a/log", 10);
  EXPECT_FALSE(entity->collectionControl()->wiped());

  store.remount(neighbour, "a/other", 10);
  EXPECT_FALSE(neighbour->collectionControl()->wiped());
  EXPECT_EQ(neighbour->map().size(), 1U);

  const auto found = store.manager()->findEntities("a", BrioSharedMemType::quilt);
  EXPECT_THAT(found->paths(), testing::ElementsAre("a/log", "a/other"));
  std::string aside;
  for (const std::string& name : filesIn(store.folder() / "a")) {
    if (name.find(".aside.") != std::string::npos) {
      aside = bytesOf(store.folder() / "a" / name);
      EXPECT_EQ(name.find("log.quilt.aside."), 0U);
    }
  }
  EXPECT_EQ(aside.size(), before.size());
}

INSTANTIATE_TEST_SUITE_P(
    Reasons, Wiped,
    testing::Values(
        Wiping{"missing", [](const auto& file) { std::filesystem::remove(file); }, false},
        Wiping{"shorterThanAHeader",
               [](const auto& file) { std::filesystem::resize_file(file, 100); }, false},
        Wiping{"shorterByAByte",
               [](const auto& file) {
                 std::filesystem::resize_file(file, std::filesystem::file_size(file) - 1);
               },
               false},
        Wiping{"empty", [](const auto& file) { std::filesystem::resize_file(file, 0); }, false},
        Wiping{"noHeader", [](const auto& file) { overwrite(file, 0, std::string(4096, 'x')); },
               false},
        Wiping{"otherLayout",
               [](const auto& file) {
                 // What a version of the program with another record has written under this type.
                 const Quilt::Shape shape =
                     Quilt::RecordTraits<ConfigRecord>::shape("StoreTest::LogQuilt", "records", 10);
                 const std::string name = file.string();
                 std::filesystem::remove(file);
                 auto mounted = Quilt::mountForWriting<ConfigRecord>(
                     Quilt::FilePlace{"a/log", name.substr(0, name.size() - 6)}, shape);
               },
               false},
        Wiping{"markedAsDamaged",
               [](const auto& file) {
                 overwrite(file, offsetof(Quilt::Header, damaged), std::string(1, '\1'));
               },
               true},
        Wiping{"oneHeaderCopyGone",
               [](const auto& file) { overwrite(file, 20, std::string(8, 'x')); }, true}),
    [](const auto& wiping) { return wiping.param.name; });

TEST(Mount, AnUnmarkedDamageIsFoundAtTheMountAndTheRestIsTakenOver) {
  Store store;
  auto entity = store.mount<ConfigQuilt>("config", 64);
  for (std::uint32_t key = 0; key < 64; ++key) {
    entity->map().recordIs(ConfigRecord::of(key, 1));
  }
  const std::uint64_t slots = entity->map().file()->geometry().slotsOffset;
  entity = nullptr;
  store.manager()->entityDelAll();
  // A byte of the payload of the record in slot 20.
  overwrite(store.file("config"), slots + 20 * 80 + 16 + 40, "?");
  entity = store.mount<ConfigQuilt>("config", 64);
  EXPECT_TRUE(entity->collectionControl()->wiped());
  EXPECT_EQ(entity->map().size(), 63U);
  bool found = true;
  static_cast<void>(entity->map().find(ConfigKey{20}, found));
  EXPECT_FALSE(found);
  for (std::uint32_t key = 0; key < 64; ++key) {
    EXPECT_EQ(entity->map().find(ConfigKey{key}, found),
              key == 20 ? ConfigRecord{} : ConfigRecord::of(key, 1));
  }
}

TEST(Mount, ALostRegisterDoesNotWipe) {
  Store store;
  auto entity = store.mount<LogQuilt>("log", 10);
  entity->map().recordIs(LogRecord::of(1));
  entity = nullptr;
  store.manager()->entityDelAll();
  std::filesystem::remove(store.folder() / "log.register");
  entity = store.mount<LogQuilt>("log", 10);
  EXPECT_FALSE(entity->collectionControl()->wiped());
  EXPECT_EQ(entity->map().size(), 1U);
  entity = nullptr;
  store.manager()->entityDelAll();
  std::filesystem::remove(store.file("log"));
  entity = store.mount<LogQuilt>("log", 10);
  EXPECT_TRUE(entity->collectionControl()->wiped()) << "the register knows again";
}

TEST(Mount, AnotherCapacityKeepsTheRecordsAndIsNoWipe) {
  Store store;
  auto entity = store.mount<ConfigQuilt>("config", 20);
  for (std::uint32_t key = 0; key < 20; ++key) {
    entity->map().recordIs(ConfigRecord::of(key, key));
  }
  entity->collectionControl()->scratchpadIs(7);
  store.remount(entity, "config", 1000);
  EXPECT_FALSE(entity->collectionControl()->wiped());
  EXPECT_EQ(entity->map().capacity(), 1000U);
  EXPECT_EQ(entity->map().size(), 20U);
  EXPECT_EQ(entity->collectionControl()->scratchpad(), 7U);
  bool found = false;
  EXPECT_EQ(entity->map().find(ConfigKey{13}, found), ConfigRecord::of(13, 13));
  store.remount(entity, "config", 15);
  EXPECT_TRUE(entity->collectionControl()->wiped()) << "five records have no place any more";
  EXPECT_EQ(entity->map().size(), 15U);
}

TEST(Mount, WhatAMakerLeftBehindIsRemoved) {
  Store store;
  auto entity = store.mount<LogQuilt>("log", 10);
  entity = nullptr;
  store.manager()->entityDelAll();
  std::ofstream(store.folder() / "log.quilt.new") << "half a file";
  entity = store.mount<LogQuilt>("log", 10);
  EXPECT_THAT(filesIn(store.folder()), testing::ElementsAre("log.quilt", "log.register"));
}

TEST(Mount, OnlyOneFileIsKeptAside) {
  Store store;
  auto entity = store.mount<LogQuilt>("log", 10);
  for (int i = 0; i < 3; ++i) {
    entity = nullptr;
    store.manager()->entityDelAll();
    overwrite(store.file("log"), offsetof(Quilt::Header, damaged), std::string(1, '\1'));
    entity = store.mount<LogQuilt>("log", 10);
  }
  EXPECT_EQ(filesIn(store.folder()).size(), 3U);
}

TEST(Mount, AGroupMountsAllOrNothing) {
  Store store;
  BrioQuilt::MountInfo info(BrioQuilt::BrioQuiltType::collection);
  info.collectionInfoIs(BrioQuilt::CollectionInfo("records", 10, false));
  const auto group = store.manager()->getMountGroup();
  group->mount("one", "StoreTest::LogQuilt", info);
  group->mount("two", "StoreTest::Unheard", info);
  const std::string error = errorOf([&] { group->doClose(); });
  EXPECT_THAT(error, HasSubstr("two: no type StoreTest::Unheard is known in this process"));
  EXPECT_EQ(store.manager()->getEntity("one"), nullptr);
  // Its lock is gone, too, and what was made is no loss.
  const auto entity = store.mount<LogQuilt>("one", 10);
  EXPECT_FALSE(entity->collectionControl()->wiped());
  group->mount("three", "StoreTest::LogQuilt", info);
  EXPECT_EQ(store.manager()->getEntity("three"), nullptr) << "not before the group is closed";
  group->doClose();
  EXPECT_NE(store.manager()->getEntity("three"), nullptr);
}

TEST(Mount, DeclaresExactlyOneCollection) {
  Store store;
  const auto group = store.manager()->getMountGroup();
  group->mount("none", "StoreTest::LogQuilt",
               BrioQuilt::MountInfo(BrioQuilt::BrioQuiltType::collection));
  EXPECT_THAT(errorOf([&] { group->doClose(); }), HasSubstr("none: the mount declares 0"));
}

TEST(Mount, TheRootCannotMoveUnderWhatIsMounted) {
  Store store;
  const auto entity = store.mount<LogQuilt>("log", 10);
  EXPECT_THAT(
      errorOf([&] { EntityManager::rootIs(store.manager()->name(), store.root() + "/elsewhere"); }),
      HasSubstr("cannot take " + store.root() + "/elsewhere as its root"));
  EntityManager::rootIs(store.manager()->name(), store.root());
}

TEST(Mount, AFolderThatCannotBeMadeIsNamed) {
  Store store;
  std::ofstream(store.root() + "/file") << "in the way";
  const std::string name = "manager-in-the-way";
  EntityManager::rootIs(name, store.root() + "/file");
  const auto manager = EntityManager::getEntityManager(name, false);
  BrioQuilt::MountInfo info(BrioQuilt::BrioQuiltType::collection);
  info.collectionInfoIs(BrioQuilt::CollectionInfo("records", 10, false));
  const auto group = manager->getMountGroup();
  group->mount("x/log", "StoreTest::LogQuilt", info);
  const std::string error = errorOf([&] { group->doClose(); });
  EXPECT_THAT(error, HasSubstr("x/log: cannot make the folder"));
  EXPECT_THAT(error, HasSubstr("remove the file or folder that stands in the way"));
}

// --- readers

TEST(Reader, IsToldThatThereIsNothing) {
  Store store;
  const std::string error =
      errorOf([&] { static_cast<void>(store.reader<LogQuilt>("not/there")); });
  EXPECT_THAT(error, HasSubstr("not/there: cannot open"));
  EXPECT_THAT(error, HasSubstr("start the process that writes it"));
  EXPECT_THROW(static_cast<void>(store.reader<LogQuilt>("not/there")), BrioSharedMem::AbsentError);
}

TEST(Reader, OfAnotherLayoutIsToldSoAndChangesNothing) {
  Store store;
  static_cast<void>(store.mount<LogQuilt>("log", 10));
  store.manager()->entityDelAll();
  const std::string before = bytesOf(store.file("log"));
  const auto files = filesIn(store.folder());
  const std::string error = errorOf([&] { static_cast<void>(store.reader<ConfigQuilt>("log")); });
  EXPECT_THAT(error, HasSubstr("has another layout"));
  EXPECT_THAT(error, HasSubstr("StoreTest::LogQuilt"));
  EXPECT_THAT(error, HasSubstr("StoreTest::ConfigQuilt"));
  EXPECT_THROW(static_cast<void>(store.reader<ConfigQuilt>("log")),
               BrioSharedMem::OtherLayoutError);
  EXPECT_EQ(bytesOf(store.file("log")), before);
  EXPECT_EQ(filesIn(store.folder()), files);
}

TEST(Reader, OfAFileThatWasCutIsToldSo) {
  Store store;
  static_cast<void>(store.mount<LogQuilt>("log", 10));
  store.manager()->entityDelAll();
  const auto size = std::filesystem::file_size(store.file("log"));
  for (const std::uintmax_t cut :
       {size - 1, std::uintmax_t{4096}, std::uintmax_t{7}, std::uintmax_t{0}}) {
    std::filesystem::resize_file(store.file("log"), cut);
    EXPECT_THAT(errorOf([&] { static_cast<void>(store.reader<LogQuilt>("log")); }),
                HasSubstr("log: "))
        << cut;
  }
  std::ofstream(store.file("log")) << std::string(20000, 'x');
  EXPECT_THAT(errorOf([&] { static_cast<void>(store.reader<LogQuilt>("log")); }),
              HasSubstr("has no whole header"));
}

TEST(Reader, GetsAMappingOfItsOwnEachTimeAndSeesTheWriterAtWork) {
  Store store;
  auto writer = store.mount<LogQuilt>("log", 10);
  const auto one = store.reader<LogQuilt>("log");
  const auto two = store.reader<LogQuilt>("log");
  EXPECT_NE(one->map().file(), two->map().file());
  EXPECT_EQ(one->collectionControl()->incarnation(), writer->collectionControl()->incarnation());
  writer->map().recordIs(LogRecord::of(1));
  writer->collectionControl()->publishedIs(1);
  EXPECT_EQ(one->collectionControl()->published(), 1U);
  bool found = false;
  EXPECT_EQ(two->map().find(1, found), LogRecord::of(1));
  EXPECT_TRUE(found);
  EXPECT_FALSE(one->replaced());
  store.remount(writer, "log", 10);
  EXPECT_FALSE(one->replaced()) << "a restart of the writer keeps the file";
  writer = nullptr;
  store.manager()->entityDelAll();
  std::filesystem::remove(store.file("log"));
  EXPECT_TRUE(one->replaced());
  EXPECT_EQ(one->map().find(1, found), LogRecord::of(1)) << "what is mapped stays readable";
}

// --- names

TEST(FindEntities, FindsWhatLiesBelowAPathAndNothingElse) {
  Store store;
  const std::set<std::string> paths{"a/b/1", "a/b/2", "a/b/c/3", "a/bc/4", "a/b", "d"};
  for (const std::string& path : paths) {
    static_cast<void>(store.mount<LogQuilt>(path, 10));
  }
  std::ofstream(store.folder() / "a/b/5.quilt.new") << "x";
  std::ofstream(store.folder() / "a/b/1.quilt.aside.77") << "x";
  std::ofstream(store.folder() / "a/b/not.an.entity.quilt") << "x";
  std::ofstream(store.folder() / "a/b/%41.quilt") << "x";
  std::ofstream(store.folder() / "a/b/README") << "x";
  std::filesystem::create_directory(store.folder() / "a/b/folder.quilt");
  const auto find = [&](const std::string& path) {
    return store.manager()->findEntities(path, BrioSharedMemType::quilt)->paths();
  };
  EXPECT_THAT(find("a/b"), testing::ElementsAre("a/b/1", "a/b/2", "a/b/c/3"));
  EXPECT_THAT(find("a/b/"), testing::ElementsAre("a/b/1", "a/b/2", "a/b/c/3"));
  EXPECT_EQ(find(""), paths);
  EXPECT_TRUE(find("a/b/1").empty());
  EXPECT_TRUE(find("nowhere").empty());
  EXPECT_EQ(store.manager()->findEntities("a/b", BrioSharedMemType::quilt)->count(), 3U);
  EXPECT_EQ(store.manager()->findEntities("a/b", BrioSharedMemType::none)->count(), 0U);
  store.manager()->entityDelAll();
  EXPECT_EQ(find(""), paths) << "also what this process has not mounted";
}

TEST(EntityPath, NoTwoPathsHaveOneName) {
  const std::vector<std::string> paths{"",      "/",     "a",       "a/",
                                       "/a",    "a//b",  "a/b",     "..",
                                       "../..", ".",     "a.quilt", "a%",
                                       "a%41",  "aA",    "a b",     "\xff",
                                       "%",     "a/./b", "a:b-c_d", std::string("a\0b", 3)};
  std::set<std::string> names;
  for (const std::string& path : paths) {
    const std::string name = BrioSharedMem::encodedPath(path);
    EXPECT_TRUE(names.insert(name).second) << path;
    EXPECT_EQ(name.find('.'), std::string::npos) << name;
    EXPECT_EQ(BrioSharedMem::decodedPath(name), path) << name;
  }
  for (const char* name : {"%4", "%zz", "%41", "a//b", "", "a.b", "%2f", "%%"}) {
    EXPECT_EQ(BrioSharedMem::decodedPath(name), std::nullopt) << name;
  }
}

TEST(EntityPath, StrangePathsStayInsideTheManagersFolder) {
  Store store;
  const auto entity = store.mount<LogQuilt>("../../up/.hidden/\xc3\xa4 b", 10);
  ASSERT_NE(entity, nullptr);
  EXPECT_THAT(store.manager()->findEntities("..", BrioSharedMemType::quilt)->paths(),
              testing::ElementsAre("../../up/.hidden/\xc3\xa4 b"));
  EXPECT_THAT(filesIn(store.root()), testing::ElementsAre(store.folder().filename().string()));
  EXPECT_THAT(errorOf([&] { static_cast<void>(store.mount<LogQuilt>(std::string(300, 'x'), 10)); }),
              HasSubstr("shorten the path"));
}

}  // namespace
}  // namespace StoreTest
