#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <set>
#include <string>

#include "BrioSharedMem/StoreError.h"
#include "Lumen/Exception.h"
#include "Quilt/Layout.h"
#include "TempRoot.h"
#include "Want.h"
#include "common/Json.h"
#include "fuzz/StoreImage.h"
#include "kelp/Commands.h"

// What kelp reads of a store, whatever its files hold: it tells of damage, and never crashes, reads
// elsewhere or goes on for ever. The input chooses a store and a command, and then says what is
// changed in the files, one change after the other.

// A check waits for a writer that may be at work. There is none.
extern "C" int kelpFuzzNoSleep(const timespec*, timespec*) { return 0; }

namespace Fuzz {
namespace {

// The input from its first byte on; zeros when it is used up.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  [[nodiscard]] bool atEnd() const noexcept { return size_ == 0; }
  std::uint64_t number(std::size_t bytes) {
    std::uint64_t value = 0;
    const std::size_t count = std::min(bytes, size_);
    std::memcpy(&value, data_, count);
    skip(count);
    return value;
  }
  std::string text(std::size_t most) {
    const std::size_t count = std::min(most, size_);
    std::string value(count, '\0');
    std::copy_n(data_, count, value.begin());
    skip(count);
    return value;
  }

 private:
  void skip(std::size_t count) {
    data_ += count;
    size_ -= count;
  }

  const std::uint8_t* data_;
  std::size_t size_;
};

// Spoils one file after the other. Numbers that are too large are taken modulo what there is, so
// that every input does something.
class Spoiler {
 public:
  Spoiler(StoreImage& image, Input& input) : image_(image), input_(input) {}

  void run() {
    while (!input_.atEnd()) {
      change();
    }
    for (const std::size_t number : changed_) {
      const ImageFile& file = image_.files()[number];
      if (gone_.count(number) != 0) {
        static_cast<void>(std::remove(file.name.c_str()));
      } else {
        file.put(file.bytes);
      }
    }
  }
  ~Spoiler() {
    for (const std::size_t number : changed_) {
      ImageFile& file = image_.files()[number];
      file.bytes = file.sound;
      file.put(file.sound);
    }
  }
  Spoiler(const Spoiler&) = delete;
  Spoiler& operator=(const Spoiler&) = delete;

 private:
  static constexpr std::uint32_t kSlotsMeant = 20;

  void change() {
    const auto kind = input_.number(1) % 10;
    const auto number = static_cast<std::size_t>(input_.number(1)) % image_.files().size();
    ImageFile& file = image_.files()[number];
    changed_.insert(number);
    if (!file.collection() || kind >= 7) {
      changeFile(kind, number, file);
      return;
    }
    switch (kind) {
      case 0: {
        // A word of the header that changes alone.
        static constexpr std::array<std::size_t, 10> kWords = {
            offsetof(Quilt::Header, published),     offsetof(Quilt::Header, scratchpad),
            offsetof(Quilt::Header, announced),     offsetof(Quilt::Header, records),
            offsetof(Quilt::Header, lowKey),        offsetof(Quilt::Header, highKey),
            offsetof(Quilt::Header, slotsReserved), offsetof(Quilt::Header, wiped),
            offsetof(Quilt::Header, damaged),       offsetof(Quilt::Header, headsUsed)};
        wordIs(file, kWords.at(input_.number(1) % kWords.size()), input_.number(8));
        break;
      }
      case 1:
        wordIs(file, head(file), input_.number(8));
        break;
      case 2:
        wordIs(file, head(file), linkTo(file));
        break;
      case 3:
        // The successor stands first in a slot.
        wordIs(file, slotAt(file, slot()), linkTo(file));
        break;
      case 4:
      case 5: {
        const std::uint32_t which = slot();
        const std::size_t offset = input_.number(1) % file.geometry.slotBytes;
        bytesAre(file, slotAt(file, which) + offset, input_.text(input_.number(1) % 8 + 1));
        if (kind == 5) {
          file.seal(file.bytes, which);
        }
        break;
      }
      default:
        constantsAre(file);
    }
  }

  void changeFile(std::uint64_t kind, std::size_t number, ImageFile& file) {
    switch (kind % 3) {
      case 0:
        file.bytes.resize(input_.number(2) % (2 * file.bytes.size() + 1));
        break;
      case 1:
        gone_.insert(number);
        break;
      default:
        gone_.erase(number);
        file.bytes = input_.text(input_.number(2));
    }
  }

  // The copies of what never changes in a header: one or both, with their checksum or without.
  void constantsAre(ImageFile& file) {
    const std::uint64_t which = input_.number(1);
    const std::size_t offset = input_.number(1) % offsetof(Quilt::HeaderConstants, checksum);
    const std::string text = input_.text(input_.number(1) % 64 + 1);
    for (const std::size_t copy :
         {offsetof(Quilt::Header, constants), offsetof(Quilt::Header, copy)}) {
      if (file.bytes.size() < sizeof(Quilt::Header) ||
          (copy == 0 ? (which & 1U) : (which & 2U)) != 0) {
        continue;
      }
      Quilt::HeaderConstants constants;
      std::memcpy(&constants, &file.bytes[copy], sizeof constants);
      std::memcpy(static_cast<char*>(static_cast<void*>(&constants)) + offset, text.data(),
                  std::min(text.size(), sizeof constants - offset));
      if ((which & 4U) != 0) {
        sealConstants(constants);
      }
      std::memcpy(&file.bytes[copy], &constants, sizeof constants);
    }
  }

  std::uint32_t slot() { return static_cast<std::uint32_t>(input_.number(1)) % kSlotsMeant; }
  static std::size_t slotAt(const ImageFile& file, std::uint32_t slot) {
    return file.geometry.slotsOffset + std::size_t{slot} * file.geometry.slotBytes;
  }
  std::size_t head(const ImageFile& file) {
    return Quilt::Geometry::kHeadsOffset + 8 * (input_.number(1) % file.geometry.buckets);
  }
  // A link to a slot, with the generation that the slot has.
  std::uint64_t linkTo(const ImageFile& file) {
    const std::uint32_t to = slot();
    const std::size_t at = slotAt(file, to) + offsetof(Quilt::Slot<1>, generation);
    std::uint32_t generation = 0;
    if (at + sizeof generation <= file.bytes.size()) {
      std::memcpy(&generation, &file.bytes[at], sizeof generation);
    }
    return Quilt::Link::to(to, generation);
  }
  static void wordIs(ImageFile& file, std::size_t at, std::uint64_t value) {
    if (at + sizeof value <= file.bytes.size()) {
      std::memcpy(&file.bytes[at], &value, sizeof value);
    }
  }
  static void bytesAre(ImageFile& file, std::size_t at, const std::string& text) {
    if (at + text.size() <= file.bytes.size()) {
      file.bytes.replace(at, text.size(), text);
    }
  }

  StoreImage& image_;
  Input& input_;
  std::set<std::size_t> changed_;
  std::set<std::size_t> gone_;
};

struct Command {
  void (*run)(Kelp::Session&);
  const char* table;
  const char* key;
};
constexpr const char* kKey1 = R"({"port":5,"vlan":0})";
constexpr const char* kKey2 = R"({"fodo":5,"vlanDomain":0,"port":0})";
constexpr std::array<Command, 10> kCommands{{{&Kelp::check, "", ""},
                                             {&Kelp::showTables, "", ""},
                                             {&Kelp::showPending, "", ""},
                                             {&Kelp::showResources, "", ""},
                                             {&Kelp::showEntries, "Isem1Tag", ""},
                                             {&Kelp::showEntries, "EsemFodoVd", ""},
                                             {&Kelp::showLog, "Isem1Tag", ""},
                                             {&Kelp::showLog, "EsemFodoVd", ""},
                                             {&Kelp::showEntry, "Isem1Tag", kKey1},
                                             {&Kelp::showEntry, "EsemFodoVd", kKey2}}};

struct Stores {
  TestSupport::TempRoot root;
  StoreImage used{root.path(), "used", true};
  StoreImage fresh{root.path(), "fresh", false};
};
// Gone at the end of the process.
Stores& stores() {
  static Stores made;
  return made;
}

// What the program would end with. Whatever else is thrown ends the process.
Kelp::Exit runCommand(const Command& command, const StoreImage& image, bool json) {
  Kelp::Options options;
  options.root = stores().root.path();
  options.name = image.name();
  options.json = json;
  options.table = command.table;
  options.key = command.key;
  try {
    Kelp::Session session(options);
    command.run(session);
    session.out().flush();
    return session.conclude();
  } catch (const Kelp::CommandError& error) {
    return error.status();
  } catch (const Lumen::Exception&) {
    return Kelp::kDamage;
  } catch (const BrioSharedMem::StoreError&) {
    return Kelp::kFailed;
  }
}

}  // namespace
}  // namespace Fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  using Fuzz::stores;
  for (const auto& command : Fuzz::kCommands) {
    const auto status = Fuzz::runCommand(command, stores().used, true);
    Fuzz::want(status == Kelp::kDone || (status == Kelp::kFailed && command.run == &Kelp::check),
               "the store is sound before anything is changed");
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Fuzz::Input input(data, size);
  const auto choice = static_cast<std::size_t>(input.number(1));
  const auto& command = Fuzz::kCommands.at(choice % Fuzz::kCommands.size());
  auto& image = choice < 200 ? Fuzz::stores().used : Fuzz::stores().fresh;
  Fuzz::Spoiler spoiler(image, input);
  spoiler.run();
  const auto status = Fuzz::runCommand(command, image, (choice / 10) % 2 == 0);
  Fuzz::want(status == Kelp::kDone || status == Kelp::kFailed || status == Kelp::kDamage,
             "the status is one of a look at a store");
  return 0;
}
