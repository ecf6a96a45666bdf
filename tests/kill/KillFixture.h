#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Brio/Log.h"
#include "BrioSharedMem/EntityPath.h"
#include "Quilt/Seam.h"
#include "SampleResources.h"
#include "TableFixture.h"
#include "chip/HardwareSide.h"

namespace TestSupport {

// Agents as processes, each a fork of the test, which itself is the hardware side that lives on. An
// agent can be ended in front of any step that it takes in the store. What it tells, by a pipe, is
// what it was told: the states of its handles.
template <class T>
class KillFixture : public TableFixture<T> {
 public:
  using Base = TableFixture<T>;
  using Entry = typename Base::Entry;
  using Key = typename Base::Key;
  using Interface = typename Base::Interface;
  using Table = typename Base::Table;
  using Place = std::pair<unsigned, std::uint64_t>;  // unit and number of the key
  using Content = std::map<Place, std::uint64_t>;    // the variant of the entry
  using Other = std::conditional_t<std::is_same_v<T, KelpEmServer::EsemFodo>,
                                   KelpEmServer::LemVpwsAc, KelpEmServer::EsemFodo>;

  static constexpr std::uint64_t kKeys = 6;
  static constexpr std::uint64_t kVariants = 4;

  // Of a table with two resources, an entry names both.
  static Entry entry(std::uint64_t number, std::uint64_t variant) {
    Entry made = Base::entry(number, variant);
    if constexpr (requires { made.rsrcKeys.vlanEditProfileKey; }) {
      using ResourceKey = decltype(made.rsrcKeys.vlanEditProfileKey);
      made.rsrcKeys.vlanEditProfileKey = sampleResource<ResourceKey>(variant + 1);
    }
    return made;
  }

  // What an agent told before it ended.
  struct Told {
    std::uint64_t version = 0;   // the highest that a handle was told
    bool done = false;           // the operation in question stood in the log
    std::uint64_t finished = 0;  // changes that this agent finished when it mounted
  };

 protected:
  void SetUp() override { startChip(); }
  void TearDown() override {
    chip_.reset();
    Base::TearDown();
  }

  // A fresh store, with a hardware side that has not seen anything.
  void startChip() {
    chip_.reset();
    std::filesystem::remove_all(this->root_.path());
    std::filesystem::create_directory(this->root_.path());
    Chip::Options options;
    options.name = "kelp-test";
    options.root = this->root_.path();
    options.say = [](std::string_view) {};
    chip_ = std::make_unique<Chip::HardwareSide>(options);
  }
  void chipWorks() {
    chip_->tend();
    while (chip_->work() != 0) {
    }
  }

  // Runs `prepare`, and then `work` up to step `last` (0: to its end), as one process. `through`
  // says whether it got to its end.
  Told runAgent(const std::function<void()>& prepare, const std::function<void()>& work,
                std::uint64_t last, bool& through) {
    std::array<int, 2> toTest{};
    std::array<int, 2> toAgent{};
    EXPECT_EQ(pipe(toTest.data()), 0);
    EXPECT_EQ(pipe(toAgent.data()), 0);
    const pid_t agent = fork();
    if (agent == 0) {
      close(toTest[0]);
      close(toAgent[1]);
      out_ = toTest[1];
      in_ = toAgent[0];
      prepare();
      Quilt::Seam::steps = 0;
      Quilt::Seam::endBefore = last;
      work();
      Quilt::Seam::endBefore = 0;
      tell('n', finished_);
      _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    close(toTest[1]);
    close(toAgent[0]);
    Told told;
    std::array<std::uint64_t, 2> message{};
    while (read(toTest[0], message.data(), sizeof message) == sizeof message) {
      switch (message[0]) {
        case 'v':
          told.version = std::max(told.version, message[1]);
          break;
        case 'd':
          told.done = true;
          break;
        case 'n':
          told.finished = message[1];
          break;
        default: {
          chipWorks();
          EXPECT_EQ(write(toAgent[1], message.data(), 1), 1);
        }
      }
    }
    close(toTest[0]);
    close(toAgent[1]);
    int status = 0;
    waitpid(agent, &status, 0);
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    EXPECT_TRUE(code == 0 || (last != 0 && code == Quilt::Seam::kExitStatus))
        << "status " << status;
    through = code == 0;
    return told;
  }
  Told runAgent(const std::function<void()>& work) {
    bool through = false;
    return runAgent([] {}, work, 0, through);
  }

  // What the last agent has left of the table, as far as a recovery goes by it: the words of the
  // log and the versions of all records.
  std::string left() {
    const auto memory = BrioSharedMem::EntityManager::getEntityManager("kelp-test", false);
    std::string text;
    const auto append = [&]<class Record>(const Quilt::QuiltMap<Record>& map) {
      Record record;
      Quilt::IterHint hint;
      for (bool more = map.first(record, hint); more;
           more = map.next(record.quiltKey(), record, hint)) {
        text += fmt::format("{} ", record.version);
      }
      text += '/';
    };
    try {
      const auto log = Lumen::dynamicPtrCast<typename T::EntryLogQuilt>(
          memory->openReader(KelpEmServer::KelpConstants<T>::tableEntryLogQuiltPath(),
                             "KelpTunnelNiLib::" + std::string(T::name.view()) + "EntryLogQuilt"));
      const auto control = log->collectionControl();
      text = fmt::format("{} {} {}/", control->announced(), control->scratchpad(),
                         control->published());
      append(log->entryLogConfig());
      for (const Asic::UnitId unit : {Base::unit0, Base::unit1}) {
        append(Lumen::dynamicPtrCast<typename T::ConfigQuilt>(
                   memory->openReader(
                       KelpEmServer::KelpConstants<T>::configQuiltPath(unit),
                       "KelpTunnelNiLib::" + std::string(T::name.view()) + "ConfigQuilt"))
                   ->swTableEntries());
      }
    } catch (const BrioSharedMem::StoreError&) {
      text += "no collection";
    }
    return text;
  }

  // --- in an agent

  void tell(char what, std::uint64_t number) const {
    const std::array<std::uint64_t, 2> message{static_cast<std::uint64_t>(what), number};
    EXPECT_EQ(write(out_, message.data(), sizeof message), static_cast<ssize_t>(sizeof message));
  }
  // Starts the agent, with both units of the table.
  void startAgent(bool marking = false) {
    Brio::logSinkIs([](const Brio::LogRecord&) {});
    Brio::TraceHandle::settingsIs(std::string(T::name.view()) + "KelpEntryLog/2");
    Lumen::traceSinkIs([this](const Lumen::TraceRecord& record) {
      finished_ += record.text.find("Finished a change that was cut off") != std::string_view::npos;
    });
    this->start(marking);
    (void)this->table(Base::unit0);
    (void)this->table(Base::unit1);
  }
  void chipWorksNow() const {
    tell('w', 0);
    char answer = 0;
    EXPECT_EQ(read(in_, &answer, 1), 1);
  }
  // The hardware side works, and the agent takes its report in.
  void settle() {
    chipWorksNow();
    this->group()->pollStatus();
  }
  void put(std::uint64_t number, std::uint64_t variant, unsigned unit = 0) {
    (void)this->table(Asic::UnitId{static_cast<std::uint16_t>(unit)})
        ->entryWrite(this->key(number), this->entry(number, variant), nullptr);
    this->pass();
  }
  void take(std::uint64_t number, unsigned unit = 0) {
    (void)this->table(Asic::UnitId{static_cast<std::uint16_t>(unit)})
        ->entryRemove(this->key(number), nullptr);
    this->pass();
  }
  // Tells the test what `handle` is told from now on.
  void watch(const Lumen::Ptr<const Asic::OrderedSwTable::EntryHandle>& handle) {
    watches_.push_back(std::make_unique<Watch>(this, handle));
    handle->publisher()->subscriberAdd(watches_.back().get());
  }

  // What the collections of the table hold, as another process sees them.
  Content content() {
    Content all;
    for (unsigned unit = 0; unit < 2; ++unit) {
      const auto table = this->table(Asic::UnitId{static_cast<std::uint16_t>(unit)});
      std::size_t seen = 0;
      for (std::uint64_t number = 1; number <= kKeys; ++number) {
        if (!table->entryHas(this->key(number))) {
          continue;
        }
        ++seen;
        const Entry entry = table->entryRead(this->key(number));
        std::optional<std::uint64_t> variant;
        for (std::uint64_t one = 0; one < kVariants; ++one) {
          if (TestSupport::isAsked(entry, this->entry(number, one))) {
            variant = one;
          }
        }
        EXPECT_TRUE(variant) << "an entry that was never written";
        all[{unit, number}] = variant.value_or(kVariants);
      }
      EXPECT_EQ(table->entrys(), seen);
    }
    return all;
  }

  std::unique_ptr<Chip::HardwareSide> chip_;

 private:
  class Watch final : private Lumen::Subscriber {
   public:
    Watch(const KillFixture* test, Lumen::Ptr<const Asic::OrderedSwTable::EntryHandle> handle)
        : Subscriber(&Watch::changed), test_(test), handle_(std::move(handle)) {}

   private:
    friend class KillFixture;
    static void changed(Lumen::Publisher*, Lumen::Subscriber* self, Lumen::FieldId, const void*,
                        const void*) {
      const auto* watch = static_cast<Watch*>(self);
      const auto state = watch->handle_->entryState();
      if (state == Asic::EntryState::entryStateInLog ||
          state == Asic::EntryState::entryStateSuccess) {
        watch->test_->tell('v', watch->handle_->logVersion().value);
        watch->test_->tell('d', 0);
      }
    }

    const KillFixture* test_;
    Lumen::Ptr<const Asic::OrderedSwTable::EntryHandle> handle_;
  };

  int out_ = -1;
  int in_ = -1;
  std::vector<std::unique_ptr<Watch>> watches_;  // of an agent, which never comes to its end
  std::uint64_t finished_ = 0;
};

}  // namespace TestSupport
