#include "soak/Oracle.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <type_traits>

#include "common/EntryJson.h"
#include "common/StoreReader.h"

namespace Soak {
namespace {

std::string textOf(const Common::AnyKey& key) {
  std::string text;
  Common::appendKey(text, key);
  return text;
}

// Whether two intents ask for the same; null asks for no entry.
bool same(const std::shared_ptr<const Common::Intent>& a,
          const std::shared_ptr<const Common::Intent>& b) {
  if (a == nullptr || b == nullptr) {
    return a == b;
  }
  bool equal = false;
  Common::withTable(a->table(), [&](auto tag) {
    using T = typename decltype(tag)::Table;
    equal = Common::asksForTheSame<T>(std::get<Common::EntryOf<T>>(a->entry).entry,
                                      std::get<Common::EntryOf<T>>(b->entry).entry);
  });
  return equal;
}

}  // namespace

// The keys that the intent changes: one, or all that its place has ever had.
template <class Visit>
void Oracle::forEachState(const Common::Intent& intent, Visit&& visit) {
  Place& place = places_[{intent.table(), intent.unit.value}];
  if (intent.op == Common::IntentOp::removeAll) {
    for (auto& [text, state] : place) {
      visit(state);
    }
    return;
  }
  const Common::AnyKey key = Common::keyOf(intent.entry);
  State& state = place[textOf(key)];
  state.key = key;
  visit(state);
}

void Oracle::sent(std::uint64_t number, std::shared_ptr<const Common::Intent> intent,
                  std::uint64_t life) {
  const Asked asked = intent->op == Common::IntentOp::write ? intent : nullptr;
  forEachState(*intent, [&](State& state) {
    state.later.push_back({number, asked});
    if (intent->op != Common::IntentOp::removeAll) {
      state.life = life;
    }
  });
  open_.emplace(number, std::move(intent));
}

bool Oracle::succeeded(std::uint64_t number) {
  const auto intent = open_.extract(number);
  bool changed = false;
  forEachState(*intent.mapped(), [&](State& state) {
    const auto found = std::find_if(state.later.begin(), state.later.end(),
                                    [&](const Later& later) { return later.number == number; });
    // Not there: a later one was answered before.
    if (found != state.later.end()) {
      changed = changed || (found == state.later.begin() && !same(state.known, found->asked));
      state.known = found->asked;
      state.later.erase(state.later.begin(), std::next(found));
    }
  });
  return changed;
}

void Oracle::refused(std::uint64_t number) {
  const auto intent = open_.extract(number);
  forEachState(*intent.mapped(), [&](State& state) {
    std::erase_if(state.later, [&](const Later& later) { return later.number == number; });
  });
}

bool Oracle::isKnown(const Common::EntryName& name, std::uint64_t life) const {
  const auto place = places_.find({name.table(), name.unit.value});
  if (place == places_.end()) {
    return false;
  }
  const auto found = place->second.find(textOf(name.key));
  if (found == place->second.end()) {
    return false;
  }
  const State& state = found->second;
  return state.life == life ||
         (state.known != nullptr &&
          std::all_of(state.later.begin(), state.later.end(),
                      [](const Later& later) { return later.asked != nullptr; }));
}

template <class Tag>
void Oracle::settlePlace(Tag, const BrioSharedMem::EntityManager& memory, Asic::UnitId unit,
                         Place& place, Settled& settled) const {
  using T = typename Tag::Table;
  const auto quilt = Common::openConfig<T>(memory, unit);
  const auto& records = std::as_const(*quilt).swTableEntries();
  for (auto& [text, state] : place) {
    if (state.later.empty()) {
      continue;
    }
    bool found = false;
    const auto& record = records.find(std::get<Common::KeyOf<T>>(state.key).key, found);
    const bool there = found && record.isDeleted == 0;
    const auto isHeld = [&](const Asked& asked) {
      return asked == nullptr
                 ? !there
                 : there && Common::asksForTheSame<T>(
                                std::get<Common::EntryOf<T>>(asked->entry).entry, record.entry);
    };
    const auto newest = std::find_if(state.later.rbegin(), state.later.rend(),
                                     [&](const Later& later) { return isHeld(later.asked); });
    if (newest != state.later.rend()) {
      settled.carriedOut += same(state.known, newest->asked) ? 0 : 1;
      state.known = newest->asked;
    } else if (isHeld(state.known)) {
      ++settled.dropped;
    } else if (settled.wrong.size() < Demo::Comparison::kMostExamples) {
      settled.wrong.push_back(fmt::format(
          "{} unit {}: the key {} holds {}, which none of its last {} intents has asked for",
          T::name.view(), unit.value, text,
          there ? fmt::format("{}", record.entry.logEntry) : "nothing", state.later.size() + 1));
    }
    state.later.clear();
  }
}

Oracle::Settled Oracle::settle(const BrioSharedMem::EntityManager& memory) {
  Settled settled;
  for (auto& [name, place] : places_) {
    const auto isOpen = [](const auto& one) { return !one.second.later.empty(); };
    if (std::any_of(place.begin(), place.end(), isOpen)) {
      Common::withTable(name.first, [&, unit = Asic::UnitId{name.second}, &at = place](auto tag) {
        settlePlace(tag, memory, unit, at, settled);
      });
    }
  }
  open_.clear();
  // Keys come and go without end.
  for (auto& [name, place] : places_) {
    std::erase_if(place, [](const auto& one) {
      return one.second.known == nullptr && one.second.later.empty();
    });
  }
  return settled;
}

void Oracle::fill(Demo::Expected& expected) const {
  for (const auto& [name, place] : places_) {
    for (const auto& [text, state] : place) {
      if (state.known != nullptr) {
        expected.apply(*state.known);
      }
    }
  }
}

}  // namespace Soak
