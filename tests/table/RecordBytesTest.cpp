#include <gmock/gmock.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <vector>

#include "TableTest.h"

namespace {

// Where other processes look for what in a record, in bytes.
struct Layout {
  std::size_t keyBytes;
  std::size_t entryBytes;
  std::size_t keyInEntry;
  std::size_t logEntryInEntry;
  std::size_t logEntryBytes;
  std::size_t configBytes;
  std::size_t imageInConfig;
  std::size_t version;
  std::size_t isDeleted;
  std::size_t logBytes;
  std::size_t unit;
  std::size_t flags;
};
template <class T>
constexpr Layout kLayout{};
using namespace KelpEmServer;
template <>
[[maybe_unused]] constexpr Layout kLayout<Isem1Tag>{4, 44, 32, 32, 12, 64, 0, 48, 56, 24, 20, 22};
template <>
[[maybe_unused]] constexpr Layout kLayout<IsemUntagged>{2, 44, 40, 32, 12, 64,
                                                        0, 48, 56, 24, 20, 22};
template <>
[[maybe_unused]] constexpr Layout kLayout<Isem2Tag>{6, 48, 40, 32, 16, 64, 0, 48, 56, 32, 24, 26};
template <>
[[maybe_unused]] constexpr Layout kLayout<IsemMpls>{8, 48, 32, 32, 16, 64, 0, 48, 56, 32, 24, 26};
template <>
[[maybe_unused]] constexpr Layout kLayout<EsemFodo>{4, 12, 0, 0, 8, 24, 8, 0, 20, 24, 16, 18};
template <>
[[maybe_unused]] constexpr Layout kLayout<IsemInnerEth>{4, 12, 0, 0, 8, 24, 8, 0, 20, 24, 16, 18};
template <>
[[maybe_unused]] constexpr Layout kLayout<LemVpwsAc>{12, 28, 0, 0, 24, 40, 8, 0, 36, 40, 32, 34};
template <>
[[maybe_unused]] constexpr Layout kLayout<EsemFodoVd>{8, 576, 0,   0,  16, 592,
                                                      0, 576, 584, 32, 24, 26};

template <class Value>
std::vector<std::uint8_t> bytesOf(const Value& value) {
  std::vector<std::uint8_t> bytes(sizeof(Value));
  std::memcpy(bytes.data(), &value, sizeof(Value));
  return bytes;
}
template <class Word>
Word wordAt(const std::vector<std::uint8_t>& bytes, std::size_t offset) {
  Word word;
  std::memcpy(&word, bytes.data() + offset, sizeof(Word));
  return word;
}
std::vector<std::uint8_t> part(const std::vector<std::uint8_t>& bytes, std::size_t offset,
                               std::size_t count) {
  const auto from = bytes.begin() + static_cast<std::ptrdiff_t>(offset);
  return {from, from + static_cast<std::ptrdiff_t>(count)};
}
// The bytes with zeros in place of those listed.
std::vector<std::uint8_t> without(std::vector<std::uint8_t> bytes, std::size_t offset,
                                  std::size_t count) {
  std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(offset), count, std::uint8_t{0});
  return bytes;
}

template <class T>
class RecordBytes : public TestSupport::TableTest<T> {
 protected:
  static constexpr Layout layout = kLayout<T>;
  static constexpr Asic::UnitId unit{0x0102};
};
TYPED_TEST_SUITE(RecordBytes, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(RecordBytes, OfACommittedEntry) {
  constexpr Layout layout = TestFixture::layout;
  const auto table = this->table(this->unit);
  this->commit(table, 3);
  this->commit(table, 3, 2);
  auto bytes = bytesOf(this->configRecord(3, this->unit));
  ASSERT_EQ(bytes.size(), layout.configBytes);
  EXPECT_EQ(wordAt<std::uint64_t>(bytes, layout.version), 2U);
  EXPECT_EQ(bytes[layout.isDeleted], 0);
  const auto image = part(bytes, layout.imageInConfig, layout.entryBytes);
  auto asked = this->entry(3, 2);
  asked.logEntry =
      TestSupport::resolvedAs(asked.logEntry, this->configRecord(3, this->unit).entry.logEntry);
  EXPECT_EQ(image, bytesOf(asked));
  EXPECT_EQ(part(image, layout.keyInEntry, layout.keyBytes), bytesOf(this->key(3)));

  this->remove(table, 3);
  this->pass();
  bytes = bytesOf(this->configRecord(3, this->unit));
  EXPECT_EQ(wordAt<std::uint64_t>(bytes, layout.version), 3U);
  EXPECT_EQ(bytes[layout.isDeleted], 1);
  EXPECT_EQ(part(bytes, layout.imageInConfig, layout.entryBytes), image);
}

TYPED_TEST(RecordBytes, OfTheLogRecordsOfAWriteARemoveAndARemoveAll) {
  constexpr Layout layout = TestFixture::layout;
  const auto table = this->table(this->unit);
  this->commit(table, 3);
  this->remove(table, 3);
  table->entryRemoveAll(nullptr);
  this->pass();
  const auto logEntry =
      bytesOf(TestSupport::resolvedAs(this->entry(3).logEntry, this->logRecord(1).logEntry));
  ASSERT_EQ(logEntry.size(), layout.logEntryBytes);
  for (std::uint64_t version = 1; version <= 3; ++version) {
    const auto bytes = bytesOf(this->logRecord(version));
    ASSERT_EQ(bytes.size(), layout.logBytes);
    EXPECT_EQ(wordAt<std::uint64_t>(bytes, 0), version);
    EXPECT_EQ(wordAt<std::uint16_t>(bytes, layout.unit), 0x0102);
    EXPECT_EQ(bytes[layout.flags], version - 1);
    EXPECT_EQ(part(bytes, 8, layout.logEntryBytes),
              version < 3 ? logEntry : bytesOf(typename TypeParam::Entry::LogEntry()));
  }
}

TYPED_TEST(RecordBytes, OfTheDefaultEntry) {
  constexpr Layout layout = TestFixture::layout;
  const typename TypeParam::Entry entry;
  const auto bytes = bytesOf(entry);
  ASSERT_EQ(bytes.size(), layout.entryBytes);
  EXPECT_EQ(bytesOf(typename TestFixture::Key()), part(bytes, layout.keyInEntry, layout.keyBytes));
  EXPECT_EQ(part(bytes, layout.logEntryInEntry, layout.logEntryBytes), bytesOf(entry.logEntry));
  std::vector<std::uint8_t> rest = bytes;
  if constexpr (requires { entry.rsrcKeys.inLifIdxKey; }) {
    EXPECT_EQ(wordAt<std::uint64_t>(bytes, 24), 0x0006080000000000U);
    rest = without(rest, 24, 8);
  }
  if constexpr (std::is_same_v<TypeParam, IsemMpls>) {
    EXPECT_EQ(wordAt<std::uint32_t>(bytes, 32), 0x00100000U);
    rest = without(rest, 32, 4);
  }
  if constexpr (std::is_same_v<TypeParam, LemVpwsAc>) {
    EXPECT_EQ(wordAt<std::uint16_t>(bytes, 12), 0xFFFFU);
    rest = without(rest, 12, 2);
  }
  if constexpr (std::is_same_v<TypeParam, EsemFodoVd>) {
    EXPECT_EQ(part(bytes, 16, 544), bytesOf(KelpTunnelNiLib::VlanEditResourceKey()));
    rest = without(rest, 16, 544);
  }
  EXPECT_EQ(rest, std::vector<std::uint8_t>(layout.entryBytes));
}

TYPED_TEST(RecordBytes, OfTheResolvedFields) {
  typename TypeParam::Entry entry;
  auto& logEntry = entry.logEntry;
  if constexpr (requires { logEntry.inLif0Index; }) {
    const std::size_t first = std::is_same_v<TypeParam, Isem1Tag>   ? 36
                              : std::is_same_v<TypeParam, IsemMpls> ? 40
                                                                    : 32;
    logEntry.inLif0Index = 0xA1A2A3A4;
    if constexpr (requires { logEntry.inLif1Index; }) {
      logEntry.inLif1Index = 0xB1B2B3B4;
    } else {
      logEntry.inLif23Index = 0xB1B2B3B4;
    }
    EXPECT_EQ(wordAt<std::uint32_t>(bytesOf(entry), first), 0xA1A2A3A4U);
    EXPECT_EQ(wordAt<std::uint32_t>(bytesOf(entry), first + 4), 0xB1B2B3B4U);
  } else if constexpr (requires { logEntry.vlanEditProfile; }) {
    logEntry.vlanEditProfile = 0xA1;
    logEntry.remarkProfile = 0xB1;
    entry.rsrcKeys.remarkProfileType = 0xC1C2;
    EXPECT_EQ(bytesOf(entry)[13], 0xA1);
    EXPECT_EQ(bytesOf(entry)[14], 0xB1);
    EXPECT_EQ(wordAt<std::uint16_t>(bytesOf(entry), 568), 0xC1C2U);
  } else {
    const auto before = bytesOf(entry);
    const auto handle =
        TestFixture::Table::entryHandleFactory({}, this->key(1), this->table().get());
    const auto wrapper = TestFixture::Wrapper::KelpEntryWrapperIs(entry, handle);
    wrapper->setResolvedFields();
    wrapper->retrieveClientData();
    EXPECT_EQ(bytesOf(wrapper->entry()), before) << "the table has no resolved fields";
  }
}

TYPED_TEST(RecordBytes, EveryByteOfAKeyTellsKeysApart) {
  using Key = typename TestFixture::Key;
  for (std::size_t at = 0; at < sizeof(Key); ++at) {
    std::array<std::uint8_t, sizeof(Key)> bytes{};
    bytes[at] = 1;
    Key key{};
    Key zero{};
    std::memcpy(static_cast<void*>(&key), bytes.data(), sizeof(Key));
    bytes[at] = 0;
    std::memcpy(static_cast<void*>(&zero), bytes.data(), sizeof(Key));
    EXPECT_FALSE(key == zero) << at;
  }
}

TEST(DefaultEntry, OfIsemMplsDiffersInItsKeyFromOneOfZeros) {
  const KelpTunnelNiLib::IsemMplsEntry mpls;
  const KelpTunnelNiLib::Isem1TagEntry oneTag;
  KelpTunnelNiLib::IsemMplsEntryKey zeros;
  zeros.label = 0;
  EXPECT_FALSE(mpls.logEntry.key.isEq(zeros));
  EXPECT_EQ(wordAt<std::uint32_t>(bytesOf(oneTag), 32), 0U);
  EXPECT_TRUE(oneTag.rsrcKeys.inLifIdxKey.isEq(mpls.rsrcKeys.inLifIdxKey));
}

}  // namespace
