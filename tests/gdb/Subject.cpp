#include <cstdint>

#include "Asic/EntryState.h"
#include "Asic/EntryVersion.h"
#include "Asic/LogVersion.h"
#include "Asic/SwTableId.h"
#include "Asic/UnitId.h"
#include "Brio/HashMap2018.h"
#include "Lumen/Node.h"
#include "Lumen/Ptr.h"
#include "Lumen/RQueue.h"

// A process that gdb looks into (look.sh): one of each thing that it shows in a way of its own.

namespace Subject {

struct Thing : Lumen::Node {
  explicit Thing(std::uint32_t of) : number(of) {}
  std::uint32_t number;
};
struct SpecialThing final : Thing {
  using Thing::Thing;
};

struct Tag {};
struct HN_Number : Brio::Hm2018NE<0x1234, std::uint32_t, std::uint32_t, 1> {
  static constexpr const char* className() { return "Subject::HN_Number"; }
  using Brio::Hm2018NE<0x1234, std::uint32_t, std::uint32_t, 1>::Hm2018NE;
};
struct HN_Set : Brio::Hm2018NE<0x1235, std::uint32_t, void, 1> {
  static constexpr const char* className() { return "Subject::HN_Set"; }
  using Brio::Hm2018NE<0x1235, std::uint32_t, void, 1>::Hm2018NE;
};

// Where gdb stops; it must not be folded into its caller.
[[gnu::noinline]] void stop() { asm volatile("" ::: "memory"); }

}  // namespace Subject

int main() {
  using namespace Subject;
  const Lumen::Ptr<Thing> nothing;
  const Lumen::Ptr<Thing> thing = Lumen::makeNode<SpecialThing>(7U);
  const Lumen::Ptr<Thing> again = thing;

  Brio::HashMap2018<HN_Number> numbers;
  Brio::HashMap2018<HN_Set> set;
  Brio::HashMap2018<HN_Set> none;
  for (std::uint32_t i = 1; i <= 100; ++i) {
    numbers.newMember(numbers.hashed(i), HN_Number(i, 1000 + i));
  }
  set.newMember(set.hashed(5), HN_Set(5));

  Lumen::RQueue<Lumen::Ptr<Thing>, false, Tag> queue;
  Lumen::Ptr<Thing> out;
  unsigned index = 0;
  for (std::uint32_t i = 1; i <= 20; ++i) {
    queue.enq(thing);
  }
  for (int i = 0; i < 6; ++i) {
    (void)queue.deq(out, index);
  }

  const auto state = Asic::EntryState::entryStateFailed6;
  const Asic::EntryVersion version{3, 1};
  const Asic::EntryVersion invalid = Asic::EntryVersion::invalid();
  const Asic::MajorVersion major{9};
  const Asic::MajorVersion noMajor;
  const Asic::LogVersion logVersion{17};
  const Asic::SwTableId tableId{0x0102001f};
  const Asic::UnitId unit{4};
  stop();
  return nothing || !again || numbers.size() != 100 || set.empty() || !none.empty() ||
                 queue.size() != 14 || state == Asic::EntryState::entryStateSuccess ||
                 !version.valid() || invalid.valid() || !major.valid() || noMajor.valid() ||
                 logVersion.value == 0 || tableId.value == 0 || unit.value == 0
             ? 1
             : 0;
}
