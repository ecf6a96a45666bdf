#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Asic/UnitId.h"
#include "BriskTrace/MsgDesc.h"
#include "BriskTrace/Reader.h"
#include "BriskTrace/Report.h"
#include "BriskTrace/RingBuf.h"
#include "BriskTrace/TraceFile.h"
#include "BriskTrace/TraceHandle.h"
#include "TempFolder.h"

namespace {

using BriskTrace::Message;
using BriskTrace::Reader;
using BriskTrace::TraceFile;
using BriskTrace::TraceFileError;
using BriskTrace::TraceHandle;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

template <class Action>
Lumen::String errorOf(Action action) {
  try {
    action();
  } catch (const TraceFileError& error) {
    return error.msg();
  }
  return "no error";
}

std::vector<std::string> texts(const std::vector<Message>& messages) {
  std::vector<std::string> all;
  for (const Message& message : messages) {
    all.push_back(message.text);
  }
  return all;
}

void reportSwept(unsigned count) {
  static BriskTrace::Site site;
  BriskTrace::report(site, "Isem1TagKelpSwTable", "sweep", "Swept {} entries", count);
}

void reportRestored(unsigned count, Asic::UnitId unit) {
  static BriskTrace::Site site;
  BriskTrace::report(site, "Isem1TagKelpInterface", "makeSwTable",
                     " Restored {} entries for table: Isem1TagKelp, unitId: {}", count, unit);
}

class BriskTraces : public testing::Test {
 protected:
  ~BriskTraces() override { BriskTrace::defaultBriskTraceHandle = nullptr; }

  std::string path() const { return folder_.path() + "/agent.brisk"; }
  // Makes a handle the default one for as long as it lives.
  struct Default {
    explicit Default(const std::string& path, const TraceFile::Options& options = {})
        : handle(path, options) {
      BriskTrace::defaultBriskTraceHandle = &handle;
    }
    ~Default() { BriskTrace::defaultBriskTraceHandle = nullptr; }
    TraceHandle handle;
  };

  TempFolder folder_;
};

TEST_F(BriskTraces, GoNowhereWithoutADefaultHandle) {
  ASSERT_EQ(BriskTrace::defaultBriskTraceHandle, nullptr);
  reportSwept(1);
  const Default trace(path());
  EXPECT_THAT(texts(Reader(path()).newMessages()), IsEmpty());
  EXPECT_EQ(BriskTrace::defaultBriskTraceHandle->traceFile().descriptors(), 0U);
}

TEST_F(BriskTraces, ComeOutAsTheyWereReported) {
  const auto before = std::chrono::system_clock::now().time_since_epoch();
  const Default trace(path());
  reportSwept(17);
  reportRestored(4000000000U, Asic::UnitId{65535});
  Reader reader(path());
  const auto messages = reader.newMessages();
  const auto after = std::chrono::system_clock::now().time_since_epoch();
  ASSERT_EQ(messages.size(), 2U);
  EXPECT_EQ(messages[0].number, 1U);
  EXPECT_EQ(messages[0].className, "Isem1TagKelpSwTable");
  EXPECT_EQ(messages[0].function, "sweep");
  EXPECT_THAT(messages[0].file, HasSubstr("BriskTraceTest.cpp"));
  EXPECT_GT(messages[0].line, 0);
  EXPECT_EQ(messages[0].text, "Swept 17 entries");
  EXPECT_EQ(messages[1].text,
            " Restored 4000000000 entries for table: Isem1TagKelp, unitId: 65535");
  EXPECT_THAT(messages[1].arguments, ElementsAre(4000000000U, 65535U));
  constexpr std::int64_t kSlack = 50'000'000;
  const auto nanoseconds = [](auto time) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(time).count();
  };
  EXPECT_GE(messages[0].nanoseconds, nanoseconds(before) - kSlack);
  EXPECT_LE(messages[1].nanoseconds, nanoseconds(after) + kSlack);
  EXPECT_LE(messages[0].nanoseconds, messages[1].nanoseconds);
  EXPECT_EQ(reader.writerPid(), static_cast<std::uint32_t>(getpid()));
  EXPECT_FALSE(reader.closed());
  EXPECT_EQ(reader.damagedSlots(), 0U);
}

TEST_F(BriskTraces, BuildNoNewDescriptorAtASecondReport) {
  const Default trace(path());
  TraceFile& file = BriskTrace::defaultBriskTraceHandle->traceFile();
  for (unsigned i = 0; i < 100; ++i) {
    reportSwept(i);
    EXPECT_EQ(file.descriptors(), 1U);
  }
  reportRestored(1, Asic::UnitId{2});
  reportSwept(0);
  EXPECT_EQ(file.descriptors(), 2U);
  EXPECT_EQ(Reader(path()).descriptors(), 2U);
}

TEST_F(BriskTraces, BuildOneDescriptorForEachFile) {
  {
    const Default first(path());
    reportSwept(1);
    const Default second(path() + "2");
    reportSwept(2);
    BriskTrace::defaultBriskTraceHandle = const_cast<TraceHandle*>(&first.handle);
    reportSwept(3);
    reportSwept(4);
  }
  Reader first(path());
  EXPECT_THAT(texts(first.newMessages()),
              ElementsAre("Swept 1 entries", "Swept 3 entries", "Swept 4 entries"));
  EXPECT_EQ(first.descriptors(), 1U);
  Reader second(path() + "2");
  EXPECT_THAT(texts(second.newMessages()), ElementsAre("Swept 2 entries"));
  EXPECT_EQ(second.descriptors(), 1U);
}

TEST_F(BriskTraces, TakeTheStepsOfASiteByHand) {
  const Default trace(path());
  TraceFile& file = BriskTrace::defaultBriskTraceHandle->traceFile();
  static std::int32_t id = 0;
  EXPECT_FALSE(file.knows(id));
  BriskTrace::MsgDesc desc(file, &id, "Hand.cpp", 42);
  EXPECT_GT(id, 0);
  desc.formatString().put("i");
  desc.formatString().put("s");
  desc.formatString().put("q");
  BriskTrace::msgDesc(desc, "Class", "function", "{} of {:04x} at {}");
  EXPECT_FALSE(file.knows(id));
  desc.finish();
  EXPECT_TRUE(file.knows(id));
  auto message = BriskTrace::RingBuf::startMsg(file, id);
  message.put(std::uint32_t{1});
  message.put(std::uint16_t{0xab});
  message.put(std::uint64_t{1} << 63);
  EXPECT_EQ(file.messages(), 0U);
  message.endMsg();
  EXPECT_EQ(file.messages(), 1U);
  EXPECT_THAT(texts(Reader(path()).newMessages()), ElementsAre("1 of 00ab at 9223372036854775808"));
}

using BriskTracesDeathTest = BriskTraces;

TEST_F(BriskTracesDeathTest, ANegativeIdIsAnAssertion) {
  const Default trace(path());
  BriskTrace::Site site;
  site.id = -1;
  EXPECT_DEATH(BriskTrace::report(site, "Class", "function", "text"), "msgId_ >= 0");
}

TEST_F(BriskTraces, KeepTheNewestMessagesWhenTheRingIsFull) {
  const Default trace(path(), {64, 2, false});
  Reader reader(path());
  for (unsigned i = 1; i <= 1000; ++i) {
    reportSwept(i);
  }
  const auto messages = reader.newMessages();
  ASSERT_EQ(messages.size(), 64U);
  for (unsigned i = 0; i < 64; ++i) {
    EXPECT_EQ(messages[i].number, 937U + i);
    EXPECT_EQ(messages[i].text, "Swept " + std::to_string(937 + i) + " entries");
  }
  EXPECT_EQ(reader.overwritten(), 0U) << "nothing was lost since the first that was read";
  for (unsigned i = 1; i <= 100; ++i) {
    reportSwept(i);
  }
  EXPECT_EQ(reader.newMessages().size(), 64U);
  EXPECT_EQ(reader.overwritten(), 36U);
}

TEST_F(BriskTraces, AreReadWhileTheyAreWritten) {
  const Default trace(path(), {1024, 2, false});
  constexpr unsigned kMessages = 200000;
  std::thread writer([] {
    for (unsigned i = 1; i <= kMessages; ++i) {
      reportSwept(i);
      if (i % 256 == 0) {
        std::this_thread::yield();
      }
    }
  });
  Reader reader(path());
  std::uint64_t last = 0;
  std::uint64_t seen = 0;
  while (last < kMessages) {
    for (const Message& message : reader.newMessages()) {
      ASSERT_GT(message.number, last);
      last = message.number;
      ++seen;
      ASSERT_EQ(message.text, "Swept " + std::to_string(last) + " entries");
    }
  }
  writer.join();
  EXPECT_GT(seen, 0U);
  EXPECT_LE(seen + reader.overwritten(), kMessages);
  EXPECT_EQ(last, kMessages);
}

TEST_F(BriskTraces, SurviveTheKillOfTheirWriter) {
  for (int round = 0; round < 5; ++round) {
    int channel[2];
    ASSERT_EQ(pipe(channel), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      const Default trace(path(), {256, 3, false});
      for (unsigned i = 1;; ++i) {
        reportSwept(i);
        if (i % 10000 == 0 && write(channel[1], &i, sizeof(i)) != sizeof(i)) {
          _exit(1);
        }
      }
    }
    close(channel[1]);
    unsigned reached = 0;
    for (int i = 0; i <= round; ++i) {
      ASSERT_EQ(read(channel[0], &reached, sizeof(reached)), ssize_t{sizeof(reached)});
    }
    kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    while (read(channel[0], &reached, sizeof(reached)) == ssize_t{sizeof(reached)}) {
    }
    close(channel[0]);
    Reader reader(path());
    const auto messages = reader.newMessages();
    ASSERT_GE(messages.size(), 255U);
    EXPECT_LE(reader.damagedSlots(), 1U);
    EXPECT_GE(messages.back().number, reached);
    for (const Message& message : messages) {
      EXPECT_EQ(message.text, "Swept " + std::to_string(message.number) + " entries");
    }
    EXPECT_FALSE(reader.closed());
    EXPECT_EQ(reader.writerPid(), static_cast<std::uint32_t>(child));
  }
}

TEST_F(BriskTraces, StayReadableBesideTheNextRuns) {
  for (unsigned run = 1; run <= 4; ++run) {
    const Default trace(path(), {64, 2, false});
    reportSwept(run);
  }
  EXPECT_THAT(texts(Reader(path()).newMessages()), ElementsAre("Swept 4 entries"));
  EXPECT_THAT(texts(Reader(path() + ".1").newMessages()), ElementsAre("Swept 3 entries"));
  EXPECT_THAT(texts(Reader(path() + ".2").newMessages()), ElementsAre("Swept 2 entries"));
  EXPECT_FALSE(std::filesystem::exists(path() + ".3"));
  EXPECT_TRUE(Reader(path()).closed());
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder_.path()), {}), 3);
}

TEST_F(BriskTraces, TellAReaderThatALaterRunHasBegun) {
  std::optional<Default> trace;
  trace.emplace(path());
  reportSwept(1);
  Reader reader(path());
  EXPECT_THAT(texts(reader.newMessages()), ElementsAre("Swept 1 entries"));
  EXPECT_FALSE(reader.replaced());
  reportSwept(2);
  trace.reset();
  trace.emplace(path());
  EXPECT_TRUE(reader.replaced());
  EXPECT_THAT(texts(reader.newMessages()), ElementsAre("Swept 2 entries"));
  EXPECT_TRUE(reader.closed());
}

TEST_F(BriskTraces, RefuseAFileThatIsBeingWritten) {
  const TraceFile first(path());
  const auto error = errorOf([&] { const TraceFile second(path()); });
  EXPECT_THAT(error,
              testing::AllOf(HasSubstr(path()), HasSubstr("process " + std::to_string(getpid())),
                             HasSubstr("stop it")));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder_.path()), {}), 1);
}

TEST_F(BriskTraces, NeverOverwriteWhatIsNoTraceFile) {
  std::ofstream(path()) << "precious";
  EXPECT_THAT(errorOf([&] { const TraceFile file(path()); }), HasSubstr("is no trace file"));
  std::string kept;
  std::ifstream(path()) >> kept;
  EXPECT_EQ(kept, "precious");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder_.path()), {}), 1);
}

TEST_F(BriskTraces, NameTheFileThatCannotBeMadeOrRead) {
  const std::string missing = folder_.path() + "/not/there.brisk";
  EXPECT_THAT(errorOf([&] { const TraceFile file(missing); }),
              testing::AllOf(HasSubstr(missing), HasSubstr("make the folder")));
  EXPECT_THAT(errorOf([&] { const Reader reader(missing); }), HasSubstr(missing));
  EXPECT_THAT(errorOf([&] { const Reader reader(folder_.path()); }), HasSubstr("is no file"));
  std::ofstream(path()) << std::string(100000, 'x');
  EXPECT_THAT(errorOf([&] { const Reader reader(path()); }), HasSubstr("is no trace file"));
  std::ofstream(path(), std::ios::trunc) << "";
  EXPECT_THAT(errorOf([&] { const Reader reader(path()); }), HasSubstr("is no trace file"));
}

TEST_F(BriskTraces, GoOnWithoutADescriptorThatFindsNoRoom) {
  const Default trace(path());
  TraceFile& file = BriskTrace::defaultBriskTraceHandle->traceFile();
  const std::string longText(5000, 'x');
  std::vector<BriskTrace::Site> sites(80);
  for (BriskTrace::Site& site : sites) {
    BriskTrace::report(site, longText, "function", "{} of {}", 1U, 2U);
    BriskTrace::report(site, longText, "function", "{} of {}", 1U, 2U);
  }
  EXPECT_EQ(file.descriptors(), 80U);
  EXPECT_GT(file.descriptorsLost(), 0U);
  Reader reader(path());
  const auto messages = reader.newMessages();
  ASSERT_EQ(messages.size(), 160U);
  EXPECT_EQ(messages.front().text, "1 of 2");
  EXPECT_EQ(messages.front().className.size(), 4096U);
  EXPECT_EQ(messages.back().text,
            "message " + std::to_string(messages.back().id) + " of an unknown place: 1 2");
  EXPECT_EQ(reader.descriptors() + file.descriptorsLost(), 80U);
}

TEST_F(BriskTraces, ComeFromManyThreadsThroughAMultiThreadedHandle) {
  constexpr unsigned kThreads = 4;
  constexpr unsigned kSites = 100;
  constexpr unsigned kMessages = 2000;
  const Default trace(path(), {16384, 2, true});
  EXPECT_TRUE(BriskTrace::defaultBriskTraceHandle->multiThreaded());
  std::vector<BriskTrace::Site> sites(kSites);
  std::atomic<unsigned> waiting{kThreads};
  std::vector<std::thread> threads;
  for (unsigned id = 0; id < kThreads; ++id) {
    threads.emplace_back([id, &sites, &waiting] {
      --waiting;
      while (waiting != 0) {
        std::this_thread::yield();
      }
      // All threads meet every site for the first time together.
      for (unsigned i = 0; i < kMessages; ++i) {
        BriskTrace::report(sites[i * kSites / kMessages], "Class", "function", "{} {}", id, i);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(BriskTrace::defaultBriskTraceHandle->mtTraceFile().descriptors(), kSites);
  std::vector<std::uint64_t> next(kThreads, 0);
  Reader reader(path());
  const auto messages = reader.newMessages();
  EXPECT_EQ(reader.descriptors(), kSites);
  ASSERT_EQ(messages.size(), std::size_t{kThreads} * kMessages);
  for (const Message& message : messages) {
    ASSERT_EQ(message.arguments.size(), 2U);
    ASSERT_LT(message.arguments[0], kThreads);
    EXPECT_EQ(message.arguments[1], next[message.arguments[0]]++);
  }
}

// A file with two sites and a few messages, for damaging.
class DamagedTraces : public BriskTraces {
 protected:
  DamagedTraces() {
    {
      const Default trace(path(), {16, 0, false});
      for (unsigned i = 0; i < 20; ++i) {
        i % 2 == 0 ? reportSwept(i) : reportRestored(i, Asic::UnitId{7});
      }
    }
    std::ifstream file(path(), std::ios::binary);
    whole_.assign(std::istreambuf_iterator<char>(file), {});
    for (const Message& message : Reader(path()).newMessages()) {
      written_.push_back(message.text);
    }
  }

  void write(const std::string& bytes) {
    std::ofstream(path(), std::ios::binary | std::ios::trunc) << bytes;
  }
  void flip(std::size_t place, int bits) {
    std::fstream file(path(), std::ios::binary | std::ios::in | std::ios::out);
    file.seekg(static_cast<std::streamoff>(place));
    const int byte = file.get();
    file.seekp(static_cast<std::streamoff>(place));
    file.put(static_cast<char>(byte ^ bits));
  }
  // Reads what is there; an empty list when it is refused with a named error.
  std::vector<std::string> readBack() {
    try {
      Reader reader(path());
      return texts(reader.newMessages());
    } catch (const TraceFileError& error) {
      EXPECT_THAT(error.msg(), HasSubstr(path()));
      return {};
    }
  }

  std::string whole_;
  std::vector<std::string> written_;
};

TEST_F(DamagedTraces, FlippedAnywhereInTheRingShowOnlyMessagesThatWereWritten) {
  ASSERT_EQ(written_.size(), 16U);
  const std::set<std::string> known(written_.begin(), written_.end());
  constexpr std::size_t kSlots = 4;  // two of each kind of message
  constexpr std::size_t kFirst = BriskTrace::Layout::kRingOffset * 8;
  std::size_t lost = 0;
  for (std::size_t bit = kFirst; bit < kFirst + kSlots * BriskTrace::Layout::kSlotBytes * 8;
       ++bit) {
    flip(bit / 8, 1 << (bit % 8));
    const auto found = readBack();
    flip(bit / 8, 1 << (bit % 8));
    ASSERT_GE(found.size(), 15U);
    lost += 16 - found.size();
    for (const std::string& text : found) {
      ASSERT_TRUE(known.count(text) != 0) << "bit " << bit << " made " << text;
    }
  }
  // Number, time and tag, and the one word of arguments; nothing depends on the others.
  EXPECT_EQ(lost, kSlots * 4 * 64);
}

TEST_F(DamagedTraces, FlippedInTheHeaderOrTheDescriptorsAreReadAsFarAsTheyGo) {
  std::vector<std::size_t> places;
  for (std::size_t byte = 0; byte < sizeof(BriskTrace::Layout::Header); ++byte) {
    places.push_back(byte);
  }
  for (std::size_t byte = 0; byte < 600; ++byte) {
    places.push_back(BriskTrace::Layout::kHeaderBytes + byte);
  }
  std::size_t refused = 0;
  for (const std::size_t place : places) {
    for (const int bits : {0x01, 0x80, 0xff}) {
      flip(place, bits);
      const auto found = readBack();
      flip(place, bits);
      if (found.empty()) {
        ++refused;
        EXPECT_LT(place, 8U) << "refused, but its magic number is whole";
        continue;
      }
      EXPECT_EQ(found.size(), 16U);
    }
  }
  EXPECT_EQ(refused, 8U * 3);
}

TEST_F(DamagedTraces, SayThatTheHeaderIsDamaged) {
  EXPECT_TRUE(Reader(path()).headerWhole());
  std::string damaged = whole_;
  damaged[offsetof(BriskTrace::Layout::FixedHeader, ringSlots)] ^= 1;
  write(damaged);
  EXPECT_FALSE(Reader(path()).headerWhole());
}

TEST_F(DamagedTraces, CutShortAnywhereAreReadAsFarAsTheyGo) {
  for (std::size_t bytes = 0; bytes < whole_.size(); bytes += bytes < 8192 ? 61 : 2039) {
    write(whole_.substr(0, bytes));
    EXPECT_LE(readBack().size(), 16U);
  }
  write(whole_.substr(0, BriskTrace::Layout::kRingOffset + 3 * 64 + 20));
  EXPECT_EQ(readBack().size(), 3U);
}

TEST_F(DamagedTraces, FullOfRandomBytesNeverCrash) {
  std::mt19937_64 random(5);
  for (int round = 0; round < 200; ++round) {
    std::string damaged = whole_;
    const std::size_t from = random() % damaged.size();
    const std::size_t count = std::min<std::size_t>(random() % 20000, damaged.size() - from);
    for (std::size_t i = 0; i < count; ++i) {
      damaged[from + i] = static_cast<char>(random());
    }
    write(damaged);
    EXPECT_LE(readBack().size(), 16U);
  }
}

TEST_F(DamagedTraces, CutShortWhileTheyAreReadAreAnEnd) {
  Reader reader(path());
  std::filesystem::resize_file(path(), 5000);
  EXPECT_THAT(reader.newMessages(), IsEmpty());
}

TEST(BriskFormat, FollowsPlainPlacesAndShowsTheRestAsItStands) {
  using BriskTrace::formatted;
  EXPECT_EQ(formatted("{} and {:#x}, {{}}", {1, 255}), "1 and 0xff, {}");
  EXPECT_EQ(formatted("{} {}", {1}), "1 {}");
  EXPECT_EQ(formatted("none", {1, 2}), "none");
  EXPECT_EQ(formatted("{:999999999} {", {1}), "{:999999999} {");
  EXPECT_EQ(formatted("{:{}} {0}", {1, 2}), "{:{}} {0}");
  EXPECT_EQ(formatted("}", {}), "}");
}

TEST(BriskFormat, ShowsTimesAsPeopleReadThem) {
  EXPECT_EQ(BriskTrace::timeText(0), "1970-01-01T00:00:00.000000Z");
  EXPECT_EQ(BriskTrace::timeText(1718093730123456789), "2024-06-11T08:15:30.123456Z");
  EXPECT_EQ(BriskTrace::timeText(-1), "1969-12-31T23:59:59.999999Z");
  EXPECT_FALSE(BriskTrace::timeText(std::numeric_limits<std::int64_t>::min()).empty());
}

}  // namespace
