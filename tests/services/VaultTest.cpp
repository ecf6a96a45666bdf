#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "Asic/GenId.h"
#include "BrioSharedMem/EntityManager.h"
#include "TempFolder.h"
#include "Vault/EntityManager.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

const Lumen::String kPath = "hardware/tinsel/agent/relaunch/config/KelpAgent";

// What an outside tool sees: the one value of a query on its own connection.
std::string outsideQuery(const std::string& file, const std::string& sql) {
  sqlite3* database = nullptr;
  if (sqlite3_open_v2(file.c_str(), &database, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
    return "cannot open";
  }
  std::string result;
  char* error = nullptr;
  sqlite3_exec(
      database, sql.c_str(),
      [](void* out, int, char** values, char**) {
        *static_cast<std::string*>(out) = values[0] == nullptr ? "NULL" : values[0];
        return 0;
      },
      &result, &error);
  if (error != nullptr) {
    result = error;
    sqlite3_free(error);
  }
  sqlite3_close(database);
  return result;
}

template <class Action>
Lumen::String errorOf(Action action) {
  try {
    action();
  } catch (const Vault::VaultError& error) {
    return error.msg();
  }
  return "no error";
}

class Vaults : public testing::Test {
 protected:
  Lumen::Ptr<Vault::EntityManager> manager(bool localMode = false) {
    return Lumen::makeNode<Vault::EntityManager>("sys", localMode, folder_.path());
  }
  std::string file() const { return folder_.path() + "/sys/vault.sqlite"; }

  TempFolder folder_;
};

TEST_F(Vaults, SayWhatTheyWereMadeFrom) {
  const auto vault = manager();
  EXPECT_EQ(vault->name(), "sys");
  EXPECT_FALSE(vault->localMode());
  EXPECT_EQ(vault->root(), folder_.path());
  EXPECT_EQ(vault->file(), file());
  struct stat status {};
  ASSERT_EQ(stat(file().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0640U & ~0027U);
  EXPECT_EQ(Lumen::makeNode<Vault::EntityManager>("sys-shm", true)->root(), "/dev/shm");
}

TEST_F(Vaults, GiveNullForAMissingEntity) { EXPECT_FALSE(manager()->getEntity(kPath)); }

TEST_F(Vaults, YieldTheSameClassAndValueAfterARestart) {
  {
    const auto vault = manager();
    const auto generation = vault->entityIs<Asic::GenId>(kPath);
    EXPECT_EQ(generation->majorId(), 0U);
    generation->majorIdInc(1);
    generation->majorIdInc(2);
    EXPECT_EQ(generation->majorId(), 3U);
    EXPECT_EQ(vault->getEntity(kPath).get(), generation.get());
  }
  const auto again = Lumen::dynamicPtrCast<Asic::GenId>(manager()->getEntity(kPath));
  ASSERT_TRUE(again);
  EXPECT_EQ(again->majorId(), 3U);
  EXPECT_EQ(again->path(), kPath);
}

TEST_F(Vaults, KeepAnEntityThatIsMadeAgain) {
  const auto vault = manager();
  vault->entityIs<Asic::GenId>(kPath)->majorIdInc(7);
  EXPECT_EQ(vault->entityIs<Asic::GenId>(kPath)->majorId(), 7U);
  EXPECT_THAT(vault->entityPaths(), ElementsAre(kPath));
}

TEST_F(Vaults, LieInTheFolderOfTheCollectionsWhateverTheNameIs) {
  const auto vault = Lumen::makeNode<Vault::EntityManager>("my.switch 1", false, folder_.path());
  const std::string folder =
      BrioSharedMem::EntityManager::getEntityManager("my.switch 1", false)->folder();
  EXPECT_EQ(vault->file(), folder + "/vault.sqlite");
  EXPECT_EQ(Vault::EntityManager::fileOf("my.switch 1", folder_.path()), vault->file());
  EXPECT_TRUE(std::filesystem::exists(vault->file()));
}

TEST_F(Vaults, AreReadableByAnyTool) {
  manager()->entityIs<Asic::GenId>(kPath)->majorIdInc(41);
  const auto vault = manager();
  EXPECT_EQ(
      outsideQuery(file(), "SELECT type || ' ' || value FROM entity WHERE path = '" + kPath + "'"),
      "Asic::GenId 41");
}

TEST_F(Vaults, SeeWhatAnotherProcessWrote) {
  const auto vault = manager();
  const auto generation = vault->entityIs<Asic::GenId>(kPath);
  EXPECT_EQ(outsideQuery(file(), "UPDATE entity SET value = '12'"), "");
  EXPECT_EQ(generation->majorId(), 12U);
  EXPECT_EQ(outsideQuery(file(), "DELETE FROM entity"), "");
  EXPECT_FALSE(vault->getEntity(kPath));
  EXPECT_EQ(generation->majorId(), 0U);
  EXPECT_THAT(errorOf([&] { generation->majorIdInc(1); }), HasSubstr("is gone"));
}

TEST_F(Vaults, LoseNoIncrementOfTwoProcesses) {
  manager()->entityIs<Asic::GenId>(kPath);
  constexpr int kProcesses = 4;
  constexpr int kIncrements = 50;
  pid_t children[kProcesses];
  for (pid_t& child : children) {
    child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      int result = 1;
      try {
        const auto vault = Lumen::makeNode<Vault::EntityManager>("sys", false, folder_.path());
        const auto generation = vault->entityIs<Asic::GenId>(kPath);
        for (int i = 0; i < kIncrements; ++i) {
          generation->majorIdInc(1);
        }
        result = 0;
      } catch (const std::exception& error) {
        fprintf(stderr, "%s\n", error.what());
      }
      _exit(result);
    }
  }
  for (const pid_t child : children) {
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(manager()->entityIs<Asic::GenId>(kPath)->majorId(), 1U * kProcesses * kIncrements);
}

TEST_F(Vaults, KeepEveryChangeThatReturnedWhenTheProcessIsKilled) {
  for (unsigned round = 0; round < 10; ++round) {
    int channel[2];
    ASSERT_EQ(pipe(channel), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      const auto vault = Lumen::makeNode<Vault::EntityManager>("sys", false, folder_.path());
      const auto generation = vault->entityIs<Asic::GenId>(kPath);
      while (true) {
        generation->majorIdInc(1);
        const std::uint64_t reached = generation->majorId();
        if (write(channel[1], &reached, sizeof(reached)) != sizeof(reached)) {
          _exit(1);
        }
      }
    }
    close(channel[1]);
    std::uint64_t reported = 0;
    for (unsigned i = 0; i < 3 + round; ++i) {
      ASSERT_EQ(read(channel[0], &reported, sizeof(reported)), ssize_t{sizeof(reported)});
    }
    kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    while (read(channel[0], &reported, sizeof(reported)) == ssize_t{sizeof(reported)}) {
    }
    close(channel[0]);
    const std::uint64_t kept = manager()->entityIs<Asic::GenId>(kPath)->majorId();
    EXPECT_GE(kept, reported);
    EXPECT_LE(kept, reported + 1);
  }
}

TEST_F(Vaults, YieldAPlainEntityForATypeThatNobodyRegistered) {
  const auto vault = manager();
  EXPECT_EQ(outsideQuery(file(), "INSERT INTO entity VALUES ('a/b', 'Asic::Elsewhere', 'x')"), "");
  const auto entity = vault->getEntity("a/b");
  ASSERT_TRUE(entity);
  EXPECT_FALSE(Lumen::dynamicPtrCast<Asic::GenId>(entity));
  const auto error = errorOf([&] { vault->entityIs("a/c", "Asic::Elsewhere"); });
  EXPECT_THAT(error, HasSubstr(file()));
  EXPECT_THAT(error, HasSubstr("Asic::Elsewhere"));
}

TEST_F(Vaults, RefuseAnEntityOfAnotherType) {
  const auto vault = manager();
  EXPECT_EQ(outsideQuery(file(), "INSERT INTO entity VALUES ('a/b', 'Asic::Elsewhere', 'x')"), "");
  const auto error = errorOf([&] { vault->entityIs<Asic::GenId>("a/b"); });
  EXPECT_THAT(error, HasSubstr("\"a/b\" is of type \"Asic::Elsewhere\""));
}

TEST_F(Vaults, NameTheFileOfAValueThatIsNoNumber) {
  const auto vault = manager();
  const auto generation = vault->entityIs<Asic::GenId>(kPath);
  EXPECT_EQ(outsideQuery(file(), "UPDATE entity SET value = '12 apples'"), "");
  EXPECT_THAT(errorOf([&] { static_cast<void>(generation->majorId()); }),
              testing::AllOf(HasSubstr(file()), HasSubstr("12 apples"), HasSubstr(kPath)));
  EXPECT_THAT(errorOf([&] { generation->majorIdInc(1); }), HasSubstr("12 apples"));
  EXPECT_EQ(outsideQuery(file(), "SELECT value FROM entity"), "12 apples");
}

TEST_F(Vaults, DeleteAnEntity) {
  const auto vault = manager();
  vault->entityIs<Asic::GenId>(kPath)->majorIdInc(5);
  EXPECT_TRUE(vault->entityDel(kPath));
  EXPECT_FALSE(vault->entityDel(kPath));
  EXPECT_FALSE(vault->getEntity(kPath));
  EXPECT_EQ(vault->entityIs<Asic::GenId>(kPath)->majorId(), 0U);
}

TEST_F(Vaults, KeepNothingOnDiskInLocalMode) {
  {
    const auto vault = manager(true);
    EXPECT_TRUE(vault->localMode());
    vault->entityIs<Asic::GenId>(kPath)->majorIdInc(3);
  }
  EXPECT_FALSE(std::filesystem::exists(file()));
  EXPECT_EQ(manager(true)->entityIs<Asic::GenId>(kPath)->majorId(), 3U);
  EXPECT_FALSE(manager(false)->getEntity(kPath));
}

TEST_F(Vaults, NameTheFileAndTheRemedyOfADamagedDatabase) {
  std::filesystem::create_directories(folder_.path() + "/sys");
  std::ofstream(file()) << std::string(8192, 'x');
  EXPECT_THAT(errorOf([&] { manager(); }),
              testing::AllOf(HasSubstr(file()), HasSubstr("move it aside")));
}

TEST_F(Vaults, RefuseTheLayoutOfANewerProgram) {
  manager();
  EXPECT_EQ(outsideQuery(file(), "PRAGMA user_version = 9"), "");
  EXPECT_THAT(errorOf([&] { manager(); }),
              testing::AllOf(HasSubstr(file()), HasSubstr("layout 9"), HasSubstr("layout 1")));
}

TEST_F(Vaults, RefuseANameThatIsNoFolderName) {
  for (const char* name : {"", ".", "..", "a/b"}) {
    EXPECT_THAT(errorOf([&] { const Vault::EntityManager made(name, false, folder_.path()); }),
                HasSubstr("one path component"));
  }
}

TEST_F(Vaults, NameTheFolderThatCannotBeMade) {
  const Lumen::String missing = folder_.path() + "/not/there";
  EXPECT_THAT(errorOf([&] { const Vault::EntityManager made("sys", false, missing); }),
              testing::AllOf(HasSubstr(missing), HasSubstr("make the folder above it")));
}

}  // namespace
