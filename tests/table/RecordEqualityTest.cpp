#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "TableTest.h"

// Values are equal if all their fields are, whatever the bytes say that no field covers: seen by
// flipping each byte of one of two equal values.

namespace {

using namespace KelpEmServer;

// How many bytes of a log entry, from the first on, and of the resource keys carry a meaning; and
// where the parts lie in the records.
struct Layout {
  std::size_t logEntryUsed;
  std::size_t rsrcKeysUsed;
  std::size_t logEntryInEntry;
  std::size_t rsrcKeysInEntry;
  std::size_t entryInConfig;
  std::size_t versionInConfig;
  std::size_t isDeletedInConfig;
  std::size_t unitInLog;
  std::size_t flagsInLog;
};
template <class T>
constexpr Layout kLayout{};
template <>
[[maybe_unused]] constexpr Layout kLayout<Isem1Tag>{12, 32, 32, 0, 0, 48, 56, 20, 22};
template <>
[[maybe_unused]] constexpr Layout kLayout<IsemUntagged>{10, 32, 32, 0, 0, 48, 56, 20, 22};
template <>
[[maybe_unused]] constexpr Layout kLayout<Isem2Tag>{14, 32, 32, 0, 0, 48, 56, 24, 26};
template <>
[[maybe_unused]] constexpr Layout kLayout<IsemMpls>{16, 32, 32, 0, 0, 48, 56, 24, 26};
template <>
[[maybe_unused]] constexpr Layout kLayout<EsemFodo>{7, 0, 0, 0, 8, 0, 20, 16, 18};
template <>
[[maybe_unused]] constexpr Layout kLayout<IsemInnerEth>{8, 0, 0, 0, 8, 0, 20, 16, 18};
template <>
[[maybe_unused]] constexpr Layout kLayout<LemVpwsAc>{23, 0, 0, 0, 8, 0, 36, 32, 34};
template <>
[[maybe_unused]] constexpr Layout kLayout<EsemFodoVd>{15, 554, 0, 16, 0, 576, 584, 24, 26};

// For each byte of a value, whether a field covers it.
template <class Value>
class Used {
 public:
  Used& with(std::size_t offset, std::size_t bytes) {
    for (std::size_t i = offset; i < offset + bytes; ++i) {
      bytes_.at(i) = true;
    }
    return *this;
  }
  template <class Part>
  Used& with(std::size_t offset, const Used<Part>& part) {
    for (std::size_t i = 0; i < sizeof(Part); ++i) {
      if (part.has(i)) {
        bytes_.at(offset + i) = true;
      }
    }
    return *this;
  }
  [[nodiscard]] bool has(std::size_t i) const { return bytes_.at(i); }

 private:
  std::vector<bool> bytes_ = std::vector<bool>(sizeof(Value));
};

template <class Value>
Value withByte(const Value& value, std::size_t at, unsigned char mask) {
  Value other = value;
  auto* byte = reinterpret_cast<unsigned char*>(&other) + at;
  *byte = static_cast<unsigned char>(*byte ^ mask);
  return other;
}

template <class Value>
void expectEveryByte(const Value& value, const Used<Value>& used) {
  static_assert(std::is_trivially_copyable_v<Value>);
  const Value same = value;
  EXPECT_TRUE(value.isEq(same));
  for (std::size_t at = 0; at < sizeof(Value); ++at) {
    for (const unsigned char mask : {0x01, 0x80, 0xff}) {
      const Value other = withByte(value, at, mask);
      EXPECT_EQ(value.isEq(other), !used.has(at)) << "byte " << at;
      EXPECT_EQ(other.isEq(value), !used.has(at)) << "byte " << at;
    }
  }
}

template <class T>
class RecordEquality : public TestSupport::TableTest<T> {
 protected:
  using Entry = typename T::Entry;
  using LogEntry = typename Entry::LogEntry;
  using ResourceKeys = typename Entry::ResourceKeys;
  using ConfigRecord = typename T::ConfigQuilt::Record;
  using LogRecord = typename T::EntryLogQuilt::Record;
  static constexpr Layout layout = kLayout<T>;

  static Used<LogEntry> ofLogEntry() { return Used<LogEntry>().with(0, layout.logEntryUsed); }
  static Used<ResourceKeys> ofResourceKeys() {
    return Used<ResourceKeys>().with(0, layout.rsrcKeysUsed);
  }
  static Used<Entry> ofEntry() {
    Used<Entry> used;
    used.with(layout.logEntryInEntry, ofLogEntry());
    return used.with(layout.rsrcKeysInEntry, ofResourceKeys());
  }
  // The default, which is what a miss is told by, and one with something in it.
  static std::vector<Entry> entries() { return {Entry(), RecordEquality::entry(3, 5)}; }
};
TYPED_TEST_SUITE(RecordEquality, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(RecordEquality, OfLogEntries) {
  for (const auto& entry : this->entries()) {
    expectEveryByte(entry.logEntry, this->ofLogEntry());
  }
}

TYPED_TEST(RecordEquality, OfResourceKeys) {
  for (const auto& entry : this->entries()) {
    expectEveryByte(entry.rsrcKeys, this->ofResourceKeys());
  }
}

TYPED_TEST(RecordEquality, OfEntries) {
  for (const auto& entry : this->entries()) {
    expectEveryByte(entry, this->ofEntry());
  }
}

TYPED_TEST(RecordEquality, OfConfigurationRecords) {
  using ConfigRecord = typename TestFixture::ConfigRecord;
  constexpr Layout layout = TestFixture::layout;
  Used<ConfigRecord> used;
  used.with(layout.entryInConfig, this->ofEntry());
  used.with(layout.versionInConfig, 8).with(layout.isDeletedInConfig, 1);
  expectEveryByte(ConfigRecord(), used);
  for (const auto& entry : this->entries()) {
    expectEveryByte(ConfigRecord(entry, Asic::LogVersion{0x0102030405060708}, true), used);
  }
}

TYPED_TEST(RecordEquality, OfLogRecords) {
  using LogRecord = typename TestFixture::LogRecord;
  constexpr Layout layout = TestFixture::layout;
  Used<LogRecord> used;
  used.with(0, 8).with(8, this->ofLogEntry());
  used.with(layout.unitInLog, 2).with(layout.flagsInLog, 1);
  expectEveryByte(LogRecord(), used);
  for (const auto& entry : this->entries()) {
    expectEveryByte(
        LogRecord(Asic::LogVersion{0x0102030405060708}, entry.logEntry, Asic::UnitId{0x0102}, 1),
        used);
  }
}

}  // namespace
