#include "Lumen/Trace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "Brio/TraceHandle.h"
#include "BriskTrace/Report.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// Collects "HANDLE LEVEL CLASS::FUNCTION TEXT" of what is traced while it lives.
class Collector {
 public:
  Collector()
      : before_(Lumen::traceSinkIs([this](const Lumen::TraceRecord& record) {
          lines.push_back(fmt::format("{} {} {}::{} {}", record.handleName, record.level,
                                      record.className, record.function, record.text));
        })) {}
  ~Collector() { Lumen::traceSinkIs(std::move(before_)); }

  std::vector<std::string> lines;

 private:
  Lumen::TraceSink before_;
};

// Handles live as long as the process.
Brio::TraceHandle& isem1() {
  static Brio::TraceHandle handle("Isem1TagKelpEntryLog", false);
  return handle;
}
Brio::TraceHandle& isem2() {
  static Brio::TraceHandle handle("Isem2TagKelpEntryLog", false);
  return handle;
}
Brio::TraceHandle& quiet() {
  static Brio::TraceHandle handle("QuietHandle", true);
  return handle;
}

class Traces : public testing::Test {
 protected:
  Traces() {
    for (Brio::TraceHandle* handle : {&isem1(), &isem2(), &quiet()}) {
      handle->maskIs(0);
    }
  }
  Collector collector_;
};

int evaluated = 0;
int argument() { return ++evaluated; }

void traceAt(const Brio::TraceHandle& handle, unsigned short level) {
  LUMEN_TRACE(handle, level, "KelpEntryLog", " key: {} ", argument());
}

TEST_F(Traces, OfALevelThatIsOffPrintNothingAndEvaluateNothing) {
  isem1().maskIs(1U << 3);
  evaluated = 0;
  traceAt(isem1(), 8);
  EXPECT_EQ(evaluated, 0);
  EXPECT_THAT(collector_.lines, IsEmpty());
  traceAt(isem1(), 3);
  EXPECT_EQ(evaluated, 1);
  EXPECT_THAT(collector_.lines,
              ElementsAre("Isem1TagKelpEntryLog 3 KelpEntryLog::traceAt  key: 1 "));
}

TEST_F(Traces, OfOneTableLeaveTheOtherTablesSilent) {
  ASSERT_TRUE(Brio::TraceHandle::settingsIs("Isem1TagKelpEntryLog/*"));
  traceAt(isem2(), 1);
  EXPECT_THAT(collector_.lines, IsEmpty());
  traceAt(isem1(), 1);
  EXPECT_EQ(collector_.lines.size(), 1U);
}

TEST_F(Traces, AreMadeWithoutARingBufferTrace) {
  ASSERT_EQ(BriskTrace::defaultBriskTraceHandle, nullptr);
  isem1().maskIs(1U << 6);
  static BriskTrace::Site site;
  const unsigned count = 3;
  BriskTrace::report(site, "SwTable", "sweep", "Swept {} entries", count);
  if (isem1().isOn(6)) {
    Lumen::fmtrace(isem1(), 6, "SwTable.cpp", "sweep", 7, "SwTable", "Swept {} entries", count);
  }
  EXPECT_THAT(collector_.lines,
              ElementsAre("Isem1TagKelpEntryLog 6 SwTable::sweep Swept 3 entries"));
}

TEST_F(Traces, KeepTheBlanksOfAFormatAndTheEmptyOne) {
  isem1().maskIs(1U << 8);
  Lumen::fmtrace(isem1(), 8, "Log.cpp", "mark", 7, "Log", "");
  Lumen::fmtrace(isem1(), 8, "Log.cpp", "mark", 7, "", "  in {} quilt  ", "cfg");
  EXPECT_THAT(collector_.lines, ElementsAre("Isem1TagKelpEntryLog 8 Log::mark ",
                                            "Isem1TagKelpEntryLog 8 ::mark   in cfg quilt  "));
}

TEST_F(Traces, ShowAFormatThatDoesNotFitInsteadOfThrowing) {
  isem1().maskIs(1U << 1);
  Lumen::fmtrace(isem1(), 1, "Log.cpp", "mark", 7, "Log", "{} and {}", 1);
  EXPECT_THAT(collector_.lines, ElementsAre(HasSubstr("{} and {} [")));
}

TEST_F(Traces, GoToStderrWithoutASink) {
  const auto collecting = Lumen::traceSinkIs({});
  testing::internal::CaptureStderr();
  Lumen::fmtrace(isem1(), 2, "KelpEmServer/Log.cpp", "mark", 7, "Log", "done {}", 1);
  const std::string printed = testing::internal::GetCapturedStderr();
  Lumen::traceSinkIs(collecting);
  EXPECT_THAT(printed, HasSubstr("Isem1TagKelpEntryLog 2 Log::mark Log.cpp:7: done 1\n"));
}

TEST_F(Traces, TakeLevelsFromPatterns) {
  ASSERT_TRUE(Brio::TraceHandle::settingsIs("Isem*KelpEntryLog/1-3,8:Isem2*/9"));
  EXPECT_EQ(isem1().mask(), 1U << 1 | 1U << 2 | 1U << 3 | 1U << 8);
  EXPECT_EQ(isem2().mask(), 1U << 9) << "the last pattern that fits decides";
  EXPECT_EQ(quiet().mask(), 0U);
  ASSERT_TRUE(Brio::TraceHandle::settingsIs("*/*"));
  EXPECT_EQ(isem1().mask(), 0xffffU);
  EXPECT_EQ(quiet().mask(), 0U) << "a bare star does not raise a quiet handle";
  ASSERT_TRUE(Brio::TraceHandle::settingsIs("Quiet*/15"));
  EXPECT_EQ(quiet().mask(), 0x8000U);
  ASSERT_TRUE(Brio::TraceHandle::settingsIs(""));
  EXPECT_EQ(isem1().mask(), 0xffffU);

  ASSERT_TRUE(Brio::TraceHandle::settingsIs("LaterHandle/4"));
  static Brio::TraceHandle later("LaterHandle", false);
  EXPECT_EQ(later.mask(), 1U << 4) << "settings hold for handles to come";
}

TEST_F(Traces, RefuseAMalformedListAndChangeNothing) {
  for (const char* list : {"Isem1", "Isem1/", "/1", "Isem1*/16", "Isem1*/3-1", "Isem1*/1,,2",
                           "Isem1*/x", "Isem1*/1:Isem2"}) {
    Lumen::String error;
    EXPECT_FALSE(Brio::TraceHandle::settingsIs(list, &error)) << list;
    EXPECT_THAT(error, HasSubstr("expected PATTERN/LEVELS")) << list;
    EXPECT_EQ(isem1().mask(), 0U) << list;
  }
}

TEST_F(Traces, AreListedByTheirHandles) {
  std::vector<std::string> names;
  Brio::TraceHandle::forEach([&](Brio::TraceHandle& handle) { names.push_back(handle.name()); });
  EXPECT_THAT(names, testing::IsSupersetOf({"Isem1TagKelpEntryLog", "Isem2TagKelpEntryLog"}));
}

// The variable is read once in a process, so the tests below run this program again, which then
// says what it made of the variable and ends.
constexpr const char* kChildMark = "KELP_TEST_TRACE_CHILD";
const bool isChild = [] {
  if (std::getenv(kChildMark) != nullptr) {
    const Brio::TraceHandle handle("ChildHandle", false);
    printf("mask=%u\n", unsigned{handle.mask()});
    fflush(stdout);
    _exit(0);
  }
  return false;
}();

std::string childWith(const char* setting) {
  int channel[2];
  if (pipe(channel) != 0) {
    return "no pipe";
  }
  const pid_t child = fork();
  if (child == 0) {
    dup2(channel[1], STDOUT_FILENO);
    dup2(channel[1], STDERR_FILENO);
    close(channel[0]);
    close(channel[1]);
    setenv("KELP_TRACE", setting, 1);
    setenv(kChildMark, "1", 1);
    execl("/proc/self/exe", "services_test", static_cast<char*>(nullptr));
    _exit(127);
  }
  close(channel[1]);
  std::string output;
  char bytes[4096];
  ssize_t count = 0;
  while ((count = read(channel[0], bytes, sizeof(bytes))) > 0) {
    output.append(bytes, static_cast<std::size_t>(count));
  }
  close(channel[0]);
  int status = 0;
  waitpid(child, &status, 0);
  return output;
}

TEST(TraceEnvironment, GivesHandlesTheirLevels) {
  EXPECT_THAT(childWith("Child*/2,4"), HasSubstr("mask=20\n"));
  EXPECT_THAT(childWith("Other*/2,4"), HasSubstr("mask=0\n"));
}

TEST(TraceEnvironment, IsIgnoredWithAMessageWhenMalformed) {
  EXPECT_THAT(childWith("Child*/2:Broken"),
              testing::AllOf(HasSubstr("KELP_TRACE ignored: trace setting 'Broken'"),
                             HasSubstr("mask=0\n")));
}

}  // namespace
