#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Asic/UnitId.h"
#include "BriskTrace/Report.h"
#include "BriskTrace/TraceHandle.h"
#include "TempFolder.h"

#ifdef KELP_BRISK

namespace {

using BriskTrace::TraceHandle;
using testing::ContainsRegex;
using testing::HasSubstr;

// The program as a process, with its output and its errors in one pipe.
class Program {
 public:
  explicit Program(std::vector<std::string> arguments) {
    int channel[2];
    if (pipe2(channel, O_CLOEXEC) != 0) {
      throw std::runtime_error("no pipe");
    }
    process_ = fork();
    if (process_ == 0) {
      dup2(channel[1], STDOUT_FILENO);
      dup2(channel[1], STDERR_FILENO);
      arguments.insert(arguments.begin(), KELP_BRISK);
      std::vector<char*> raw;
      for (std::string& argument : arguments) {
        raw.push_back(argument.data());
      }
      raw.push_back(nullptr);
      execv(KELP_BRISK, raw.data());
      _exit(127);
    }
    close(channel[1]);
    output_ = channel[0];
  }
  ~Program() {
    if (process_ > 0) {
      kill(process_, SIGKILL);
      waitpid(process_, nullptr, 0);
    }
    close(output_);
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  // Reads on until `text` has come; false after 20 seconds or the end of the output.
  bool prints(const std::string& text) {
    while (seen_.find(text) == std::string::npos) {
      pollfd wait{output_, POLLIN, 0};
      if (poll(&wait, 1, 20000) != 1 || !readSome()) {
        return false;
      }
    }
    return true;
  }
  // The exit status, once it has ended by itself.
  int ends() {
    while (readSome()) {
    }
    int status = 0;
    waitpid(std::exchange(process_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  [[nodiscard]] const std::string& seen() const { return seen_; }

 private:
  bool readSome() {
    char bytes[4096];
    const ssize_t count = read(output_, bytes, sizeof(bytes));
    seen_.append(bytes, static_cast<std::size_t>(count > 0 ? count : 0));
    return count > 0;
  }

  pid_t process_ = -1;
  int output_ = -1;
  std::string seen_;
};

void report(TraceHandle& handle, unsigned count) {
  static BriskTrace::Site site;
  BriskTrace::defaultBriskTraceHandle = &handle;
  BriskTrace::report(site, "IsemMplsKelpInterface", "makeSwTable",
                     " Restored {} entries for table: \"IsemMplsKelp\", unitId: {}", count,
                     Asic::UnitId{3});
  BriskTrace::defaultBriskTraceHandle = nullptr;
}

class KelpBrisk : public testing::Test {
 protected:
  std::string path() const { return folder_.path() + "/agent.brisk"; }
  TempFolder folder_;
};

TEST_F(KelpBrisk, PrintsTimePlaceAndText) {
  {
    TraceHandle handle(path());
    report(handle, 5);
    report(handle, 6);
  }
  Program program({path()});
  EXPECT_EQ(program.ends(), 0);
  const std::string line =
      "20[0-9-]*T[0-9:.]*Z IsemMplsKelpInterface::makeSwTable:  Restored 5 entries for table: "
      "\"IsemMplsKelp\", unitId: 3\n";
  EXPECT_THAT(program.seen(), ContainsRegex(line));
  EXPECT_THAT(program.seen(), HasSubstr("Restored 6 entries"));
}

TEST_F(KelpBrisk, PrintsJsonLines) {
  TraceHandle handle(path());
  report(handle, 5);
  Program program({"--json", path()});
  EXPECT_EQ(program.ends(), 0);
  EXPECT_THAT(program.seen(), ContainsRegex("^\\{\"number\":1,\"time\":\"20[^\"]*Z\","));
  EXPECT_THAT(program.seen(),
              HasSubstr("\"class\":\"IsemMplsKelpInterface\",\"function\":\"makeSwTable\""));
  EXPECT_THAT(program.seen(), HasSubstr("\"arguments\":[5,3]"));
  EXPECT_THAT(program.seen(), HasSubstr("table: \\\"IsemMplsKelp\\\", unitId: 3\"}\n"));
}

TEST_F(KelpBrisk, FollowsTheWriterAndTheNextRun) {
  std::optional<TraceHandle> handle;
  handle.emplace(path());
  report(*handle, 1);
  Program program({"--follow", path()});
  EXPECT_TRUE(program.prints("Restored 1 entries"));
  report(*handle, 2);
  EXPECT_TRUE(program.prints("Restored 2 entries"));
  report(*handle, 3);
  handle.reset();
  handle.emplace(path());
  report(*handle, 4);
  EXPECT_TRUE(program.prints("Restored 4 entries"));
  EXPECT_THAT(program.seen(), HasSubstr("Restored 3 entries"));
  EXPECT_THAT(program.seen(), HasSubstr("has begun the file anew"));
}

TEST_F(KelpBrisk, SaysWhatIsWrongWithAFile) {
  {
    Program program({path()});
    EXPECT_EQ(program.ends(), 1);
    EXPECT_THAT(program.seen(), HasSubstr("kelp-brisk: " + path() + ": cannot open"));
  }
  std::ofstream(path()) << std::string(1000, 'x');
  Program program({path()});
  EXPECT_EQ(program.ends(), 1);
  EXPECT_THAT(program.seen(), HasSubstr(path() + ": is no trace file"));
}

TEST_F(KelpBrisk, SaysThatMessagesAreDamaged) {
  {
    TraceHandle handle(path(), {16, 0, false});
    for (unsigned i = 0; i < 5; ++i) {
      report(handle, i);
    }
  }
  {
    std::fstream file(path(), std::ios::binary | std::ios::in | std::ios::out);
    for (const std::size_t slot : {1U, 3U}) {
      file.seekp(static_cast<std::streamoff>(BriskTrace::Layout::kRingOffset + slot * 64 + 8));
      file.put('\x55');
      file.put('\xaa');
    }
  }
  Program program({path()});
  EXPECT_EQ(program.ends(), 0);
  EXPECT_THAT(program.seen(), HasSubstr("2 messages are damaged and left out"));
  EXPECT_THAT(program.seen(), HasSubstr("Restored 4 entries"));
  EXPECT_THAT(program.seen(), testing::Not(HasSubstr("Restored 3 entries")));
}

}  // namespace

#endif  // KELP_BRISK
