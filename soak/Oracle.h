#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "BrioSharedMem/EntityManager.h"
#include "common/Intent.h"
#include "demo/Expected.h"

namespace Soak {

// What every key of every table may hold, told from the outside: from what was asked for, and from
// what was answered. It knows nothing of the agent, its library or its store, but for settle().
//
// A key holds what the last answered intent has asked for, or what one of those has that were sent
// after it and have no answer: an agent that is killed may have carried them out or not. An answer
// is for good.
class Oracle {
 public:
  // What settle() has found.
  struct Settled {
    std::uint64_t carriedOut = 0;  // keys that hold what an intent without an answer has asked for
    std::uint64_t dropped = 0;     // keys that hold what they held before such an intent
    std::vector<std::string> wrong;  // keys that hold something else, in words
  };

  // Numbers rise. `life` is the run of the agent that the intent was sent to.
  void sent(std::uint64_t number, std::shared_ptr<const Common::Intent> intent, std::uint64_t life);
  // The intent has ended well. Every number that was sent has one answer at most. Gives whether it
  // has certainly changed what its key held.
  bool succeeded(std::uint64_t number);
  // It was not taken, and has changed nothing.
  void refused(std::uint64_t number);

  [[nodiscard]] const Common::Intent& intent(std::uint64_t number) const {
    return *open_.at(number);
  }
  // Whether the agent must know this entry: it is there whatever became of intents without an
  // answer, or an intent of this life has named it.
  [[nodiscard]] bool isKnown(const Common::EntryName& name, std::uint64_t life) const;

  // No answer comes any more to what was sent: takes from the configuration collections which of
  // these intents were carried out.
  [[nodiscard]] Settled settle(const BrioSharedMem::EntityManager& memory);
  // Tells what the tables have to hold. Nothing may be unsettled.
  void fill(Demo::Expected& expected) const;

 private:
  using Asked = std::shared_ptr<const Common::Intent>;  // null: that the key is not there
  struct Later {
    std::uint64_t number;
    Asked asked;
  };
  struct State {
    Common::AnyKey key;
    Asked known;
    std::vector<Later> later;  // without an answer, numbers rising
    std::uint64_t life = 0;    // the last one that an intent was sent to
  };
  using Place = std::unordered_map<std::string, State>;     // by the key as it stands in intents
  using PlaceName = std::pair<std::size_t, std::uint16_t>;  // table and unit

  template <class Visit>
  void forEachState(const Common::Intent& intent, Visit&& visit);
  template <class Tag>
  void settlePlace(Tag tag, const BrioSharedMem::EntityManager& memory, Asic::UnitId unit,
                   Place& place, Settled& settled) const;

  std::map<PlaceName, Place> places_;
  std::unordered_map<std::uint64_t, Asked> open_;  // sent and not answered
};

}  // namespace Soak
