#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "Brio/Log.h"
#include "Brio/LogHandle.h"
#include "Brio/SassertHelper.h"
#include "Lumen/Assert.h"
#include "Lumen/Duration.h"

// What goes to syslog. The platform calls it through the program's symbols, so that the one below
// takes its place in this program: nothing of these tests ends up in the machine's log.

namespace {

using Lines = std::vector<std::pair<int, std::string>>;

// Never destroyed: handles of other units may log at exit.
Lines& lines() {
  static auto* const made = new Lines;
  return *made;
}

void take(int priority, const char* format, std::va_list arguments) {
  char text[4096];
  std::vsnprintf(text, sizeof(text), format, arguments);
  lines().emplace_back(priority, text);
  // A test of a process that ends looks at its stderr.
  if (priority == LOG_CRIT) {
    std::fprintf(stderr, "syslog %d: %s\n", priority, text);
  }
}

}  // namespace

extern "C" {

void syslog(int priority, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  take(priority, format, arguments);
  va_end(arguments);
}
// What the same call becomes where the compiler hardens format strings.
void __syslog_chk(int priority, int, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  take(priority, format, arguments);
  va_end(arguments);
}

}  // extern "C"

namespace {

using testing::ElementsAre;
using testing::Pair;

constexpr Brio::LogDescriptor kRecords[] = {
    {"PUMP_ERROR", "Pump error: %s leaks", "A pump leaks", "\x01", LOG_ERR},
    {"PUMP_NOTE", "Pump runs", "A pump runs", "\x01", LOG_NOTICE},
};
const Brio::LogSection section("pumps", kRecords);

class Syslog : public testing::Test {
 protected:
  void SetUp() override { lines().clear(); }
};

TEST_F(Syslog, TakesLogMessagesUnderTheirSeverityAndName) {
  Brio::LogHandle error(&kRecords[0], Lumen::Duration(), 1.0, 0, 0);
  Brio::LogHandle note(&kRecords[1], Lumen::Duration(), 1.0, 0, 0);
  testing::internal::CaptureStderr();
  Brio::log(error, "left %s %n");
  Brio::log(note, "");
  (void)testing::internal::GetCapturedStderr();
  EXPECT_THAT(lines(), ElementsAre(Pair(LOG_ERR, "PUMP_ERROR: Pump error: left %s %n leaks"),
                                   Pair(LOG_NOTICE, "PUMP_NOTE: Pump runs")));
}

TEST_F(Syslog, TakesNothingThatASinkTook) {
  Brio::LogHandle note(&kRecords[1], Lumen::Duration(), 1.0, 0, 0);
  int taken = 0;
  const auto before = Brio::logSinkIs([&](const Brio::LogRecord&) { ++taken; });
  Brio::log(note, "");
  Brio::logSinkIs(before);
  EXPECT_EQ(taken, 1);
  EXPECT_THAT(lines(), ElementsAre());
}

TEST_F(Syslog, TakesTheSentenceOfABrokenInvariant) {
  testing::internal::CaptureStderr();
  {
    Brio::SassertHelper sentence("pumpHas( id )");
    sentence.stream() << "pump " << 7 << " 100% gone";
  }
  (void)testing::internal::GetCapturedStderr();
  EXPECT_THAT(lines(), ElementsAre(Pair(LOG_CRIT, "pumpHas( id ): pump 7 100% gone")));
}

TEST(SyslogDeathTest, TakesAnAssertionBeforeTheProcessEnds) {
  EXPECT_DEATH(Lumen::assertThat(false, "pump_ == 100%d"),
               "syslog 2: .*SyslogTest.cpp:[0-9]+: .*: Assertion `pump_ == 100%d' failed\\.");
}

}  // namespace
