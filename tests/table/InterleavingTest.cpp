#include <gmock/gmock.h>

#include <optional>
#include <vector>

#include "TableTest.h"

namespace {

// What a table must look like after any sequence of operations on one key, told in plain values.
class Model {
 public:
  struct InFlight {
    std::uint64_t version;
    std::uint64_t variant;
  };

  void write(std::uint64_t variant) {
    const std::uint64_t next = nextVersion();
    add = InFlight{next, variant};
    remove.reset();
    queue_.push_back({Kind::write, next, variant});
  }
  void removeKey() {
    const std::uint64_t next = nextVersion();
    add.reset();
    remove = InFlight{next, 0};
    queue_.push_back({Kind::remove, next, 0});
  }
  void removeAll() {
    add.reset();
    remove.reset();
    ++removeAlls;
    queue_.push_back({Kind::removeAll, 0, 0});
  }
  // Gives the number of operations that go through.
  std::size_t pass() {
    for (const Operation& each : queue_) {
      commit(each);
    }
    const std::size_t count = queue_.size();
    queue_.clear();
    return count;
  }
  void report() {
    if (record && recordDeleted && recordVersion <= tableVersion) {
      record.reset();
    }
    cleaned = tableVersion;
  }

  [[nodiscard]] bool has() const {
    return add || (!remove && removeAlls == 0 && record && !recordDeleted);
  }
  // The variant that a read finds, if it finds one.
  [[nodiscard]] std::optional<std::uint64_t> read() const {
    if (add) {
      return add->variant;
    }
    return !remove && record && !recordDeleted ? record : std::nullopt;
  }
  [[nodiscard]] bool pending() const {
    return add || remove || removeAlls != 0 || cleaned != tableVersion;
  }

  std::optional<InFlight> add;
  std::optional<InFlight> remove;
  std::optional<std::uint64_t> version;
  unsigned removeAlls = 0;
  std::optional<std::uint64_t> record;  // the variant in the configuration
  bool recordDeleted = false;
  std::uint64_t recordVersion = 0;
  std::uint64_t tableVersion = 0;
  std::uint64_t cleaned = 0;

 private:
  enum class Kind { write, remove, removeAll };
  struct Operation {
    Kind kind;
    std::uint64_t version;
    std::uint64_t variant;
  };

  std::uint64_t nextVersion() {
    version = version ? *version + 1 : 0;
    return *version;
  }
  void drop(std::optional<InFlight>& newest, std::uint64_t at) {
    if (newest && newest->version == at) {
      newest.reset();
      version.reset();
    }
  }
  void commit(const Operation& each) {
    switch (each.kind) {
      case Kind::write:
        drop(add, each.version);
        record = each.variant;
        recordDeleted = false;
        recordVersion = ++tableVersion;
        break;
      case Kind::remove:
        drop(remove, each.version);
        if (record) {
          recordDeleted = true;
          recordVersion = ++tableVersion;
        }
        break;
      case Kind::removeAll:
        --removeAlls;
        if (record) {
          ++tableVersion;
          if (!recordDeleted) {
            recordDeleted = true;
            recordVersion = tableVersion;
          }
        }
        break;
    }
  }

  std::vector<Operation> queue_;
};

template <class T>
class Interleaving : public TestSupport::TableTest<T> {
 protected:
  static constexpr unsigned kSteps = 5;
  static constexpr unsigned kKinds = 5;

  void take(const Lumen::Ptr<typename TestSupport::TableTest<T>::Table>& table, Model& model,
            unsigned kind) {
    switch (kind) {
      case 0:
        this->write(table, 1, ++variant_);
        model.write(variant_);
        break;
      case 1:
        this->remove(table, 1);
        model.removeKey();
        break;
      case 2:
        table->entryRemoveAll(nullptr);
        model.removeAll();
        break;
      case 3:
        EXPECT_EQ(this->pass(), model.pass());
        break;
      default:
        table->tableStatusVersion(this->log()->tableVersion());
        model.report();
        break;
    }
  }

  void compare(const Lumen::Ptr<typename TestSupport::TableTest<T>::Table>& table,
               const Model& model) {
    const auto& key = this->key(1);
    const auto inFlight = [](const auto& wrapper) -> std::optional<std::uint64_t> {
      return wrapper ? std::optional(wrapper->entryHandle()->version().majorVersion) : std::nullopt;
    };
    const auto expected = [](const auto& newest) -> std::optional<std::uint64_t> {
      return newest ? std::optional(newest->version) : std::nullopt;
    };
    EXPECT_EQ(inFlight(table->transientAddEntry(key)), expected(model.add));
    EXPECT_EQ(inFlight(table->transientRemoveEntry(key)), expected(model.remove));
    EXPECT_EQ(table->transientVersionForKey(key).valid(), model.version.has_value());
    if (model.version) {
      EXPECT_EQ(table->transientVersionForKey(key).majorVersion, *model.version);
    }
    EXPECT_EQ(table->transientRemoveAllVersion().value, std::uint64_t{model.removeAlls} - 1U);
    EXPECT_EQ(this->tableVersion(), model.tableVersion);
    EXPECT_EQ(table->entryHas(key), model.has());
    EXPECT_EQ(table->entrys(), model.has() ? 1U : 0U);
    const auto found = model.read();
    EXPECT_TRUE(TestSupport::isAsked(table->entryRead(key),
                                     found ? this->entry(1, *found) : typename T::Entry()));
    EXPECT_EQ(table->hasPendingHwWrites(), model.pending());
  }

 private:
  std::uint64_t variant_ = 0;
};
TYPED_TEST_SUITE(Interleaving, TestSupport::AllTableTypes, TestSupport::TableTestName);

TYPED_TEST(Interleaving, OfFiveOperationsOnOneKeyEndsAsToldInEveryOrder) {
  const auto table = this->table();
  Model model;
  unsigned sequences = 1;
  for (unsigned step = 0; step < TestFixture::kSteps; ++step) {
    sequences *= TestFixture::kKinds;
  }
  for (unsigned sequence = 0; sequence < sequences; ++sequence) {
    std::string taken;
    unsigned rest = sequence;
    for (unsigned step = 0; step < TestFixture::kSteps; ++step, rest /= TestFixture::kKinds) {
      this->take(table, model, rest % TestFixture::kKinds);
      taken += "WRAPC"[rest % TestFixture::kKinds];
      this->compare(table, model);
      ASSERT_FALSE(this->HasFailure()) << "write, Remove, remove-All, Pass, Cleanup: " << taken;
    }
    // Back to a table with nothing in flight and nothing in it.
    for (const unsigned kind : {3U, 0U, 3U, 1U, 3U, 4U}) {
      this->take(table, model, kind);
    }
    this->compare(table, model);
    ASSERT_FALSE(this->HasFailure()) << "after " << taken;
    ASSERT_FALSE(model.pending() || model.version || model.record);
  }
}

}  // namespace
