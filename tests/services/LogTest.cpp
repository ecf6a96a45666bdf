#include "Brio/Log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "Brio/LogHandle.h"
#include "Lumen/Duration.h"

namespace {

using Lumen::Duration;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

constexpr Brio::LogDescriptor kRecords[] = {
    {"FAN_ERROR", "Fan error: %s stands still", "A fan stands still", "\x01", 3},
    {"FAN_PLAIN", "No text of its own", "A text without a place", "\x01", 4},
};
const Brio::LogSection section("fans", kRecords);

// Collects what is logged while it lives.
class Collector {
 public:
  Collector()
      : before_(Brio::logSinkIs([this](const Brio::LogRecord& record) {
          lines.emplace_back(record.descriptor.name, std::string(record.text));
        })) {}
  ~Collector() { Brio::logSinkIs(std::move(before_)); }

  std::vector<std::pair<std::string, std::string>> lines;

 private:
  Brio::LogSink before_;
};

TEST(Log, ReplacesThePlaceOfTheText) {
  const Collector collector;
  Brio::LogHandle handle(&kRecords[0], Duration(), 1.0, 0, 0);
  Brio::log(handle, "fan 100% %s");
  Brio::log(handle, "");
  EXPECT_THAT(collector.lines, ElementsAre(Pair("FAN_ERROR", "Fan error: fan 100% %s stands still"),
                                           Pair("FAN_ERROR", "Fan error:  stands still")));
}

TEST(Log, ShowsAFormatWithoutAPlaceAsItStands) {
  const Collector collector;
  Brio::LogHandle handle(&kRecords[1], Duration(), 1.0, 0, 0);
  Brio::log(handle, "lost");
  EXPECT_THAT(collector.lines, ElementsAre(Pair("FAN_PLAIN", "No text of its own")));
}

TEST(Log, GoesToStderrWithTheNameInFront) {
  Brio::LogHandle handle(&kRecords[0], Duration(), 1.0, 0, 0);
  testing::internal::CaptureStderr();
  Brio::log(handle, "front");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "FAN_ERROR: Fan error: front stands still\n");
}

TEST(Log, IsNeverLimitedWithAnIntervalOfZero) {
  const Collector collector;
  Brio::LogHandle handle(&kRecords[0], Duration(), 1.0, 0, 0);
  for (int i = 0; i < 1000; ++i) {
    Brio::log(handle, "front");
  }
  EXPECT_EQ(collector.lines.size(), 1000U);
  EXPECT_EQ(handle.logged(), 1000U);
  EXPECT_EQ(handle.suppressed(), 0U);
}

TEST(Log, LetsOneMessageOutInAnIntervalAndThenTellsOfTheOthers) {
  Brio::LogHandle handle(&kRecords[0], Duration::seconds(10), 1.0, 0, 0);
  EXPECT_TRUE(handle.admit(Duration::seconds(100)).admitted);
  EXPECT_FALSE(handle.admit(Duration::seconds(101)).admitted);
  EXPECT_FALSE(handle.admit(Duration::seconds(109)).admitted);
  const auto next = handle.admit(Duration::seconds(110));
  EXPECT_TRUE(next.admitted);
  EXPECT_EQ(next.suppressedBefore, 2U);
  EXPECT_EQ(handle.logged(), 2U);
  EXPECT_EQ(handle.suppressed(), 2U);
  EXPECT_FALSE(handle.admit(Duration::seconds(119)).admitted);
}

TEST(Log, LetsABurstOutInAnInterval) {
  Brio::LogHandle handle(&kRecords[0], Duration::seconds(10), 1.0, 3, 0);
  int admitted = 0;
  for (int i = 0; i < 10; ++i) {
    admitted += handle.admit(Duration::milliseconds(5 + i)).admitted ? 1 : 0;
  }
  EXPECT_EQ(admitted, 3);
}

TEST(Log, WaitsLongerAfterEachIntervalThatHeldMessagesBack) {
  Brio::LogHandle handle(&kRecords[0], Duration::seconds(10), 2.0, 1, 0);
  EXPECT_TRUE(handle.admit(Duration::seconds(0)).admitted);
  EXPECT_FALSE(handle.admit(Duration::seconds(5)).admitted);
  EXPECT_TRUE(handle.admit(Duration::seconds(10)).admitted);  // now 20 seconds
  EXPECT_FALSE(handle.admit(Duration::seconds(25)).admitted);
  EXPECT_TRUE(handle.admit(Duration::seconds(30)).admitted);  // now 40 seconds
  EXPECT_TRUE(handle.admit(Duration::seconds(70)).admitted);  // quiet: 10 seconds again
  EXPECT_TRUE(handle.admit(Duration::seconds(80)).admitted);
}

TEST(Log, LetsNoMoreOutThanItsMost) {
  const Collector collector;
  Brio::LogHandle handle(&kRecords[0], Duration(), 1.0, 0, 2);
  for (int i = 0; i < 5; ++i) {
    Brio::log(handle, "front");
  }
  EXPECT_EQ(collector.lines.size(), 2U);
  EXPECT_EQ(handle.suppressed(), 3U);
}

TEST(Log, SaysHowManyWereHeldBack) {
  const Collector collector;
  Brio::LogHandle handle(&kRecords[0], Duration::nanoseconds(1), 1.0, 1, 0);
  // The window is shorter than two calls are apart, but a message given to the handle at the same
  // instant is held back.
  const auto far = Duration::nanoseconds(1);
  EXPECT_TRUE(handle.admit(far).admitted);
  EXPECT_FALSE(handle.admit(far).admitted);
  Brio::log(handle, "front");
  EXPECT_THAT(collector.lines, ElementsAre(Pair("FAN_ERROR",
                                                "Fan error: front stands still (1 more were not "
                                                "logged)")));
}

TEST(Log, ListsTheRecordsOfItsSections) {
  std::vector<std::pair<std::string, std::string>> found;
  Brio::LogSection::forEach([&](std::string_view library, const Brio::LogDescriptor& record) {
    if (library == "fans" || library == "passing") {
      found.emplace_back(record.name, record.explanation);
    }
  });
  EXPECT_THAT(found, ElementsAre(Pair("FAN_ERROR", "A fan stands still"),
                                 Pair("FAN_PLAIN", "A text without a place")));
  {
    const Brio::LogSection passing("passing", kRecords);
    std::size_t all = 0;
    Brio::LogSection::forEach([&](std::string_view library, const Brio::LogDescriptor&) {
      all += library == "passing" ? 1U : 0U;
    });
    EXPECT_EQ(all, 2U);
  }
  Brio::LogSection::forEach(
      [&](std::string_view library, const Brio::LogDescriptor&) { EXPECT_NE(library, "passing"); });
}

TEST(LogDeathTest, AHandleNeedsADescriptor) {
  EXPECT_DEATH(Brio::LogHandle(nullptr, Duration(), 1.0, 0, 0), "descriptor != NULL");
}

}  // namespace
