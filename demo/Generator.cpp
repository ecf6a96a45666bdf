#include "demo/Generator.h"

#include <algorithm>
#include <array>
#include <optional>
#include <random>
#include <utility>

#include "KelpEmServer/TableCatalogue.h"
#include "Netkit/IntfId.h"

namespace Demo {
namespace {

using Common::AnyEntry;
using Common::EntryName;
using Common::EntryOf;
using Common::Intent;
using Common::IntentOp;
using KelpEmServer::EsemFodo;
using KelpEmServer::EsemFodoVd;
using KelpEmServer::Isem1Tag;
using KelpEmServer::Isem2Tag;
using KelpEmServer::IsemInnerEth;
using KelpEmServer::IsemMpls;
using KelpEmServer::IsemUntagged;
using KelpEmServer::LemVpwsAc;
using KelpTunnelNiLib::TagFormat;
using KelpTunnelNiLib::VlanAction;

constexpr std::uint16_t kPorts = 192;       // of a unit, breakouts counted singly
constexpr std::uint32_t kRemarkPorts = 48;  // profiles are few: ports share their remarking
constexpr std::uint32_t kVlanEdits = 32;    // and what is done to tags
constexpr std::uint32_t kCommonVlanEdit = 0;
constexpr std::uint32_t kNoService = 0x40000000;  // numbers from here on
constexpr std::size_t kMostServices = 15'000;     // live ones of a unit: no table overflows
constexpr std::uint16_t kTpid = 0x8100;

// What a customer has bought. Each service is a chain of entries, later ones after earlier ones.
enum class Kind : std::uint8_t { taggedPort, doubleTaggedPort, untaggedPort, pseudowire, tunnel };

struct Service {
  Kind kind = Kind::taggedPort;
  std::uint32_t number = 0;  // of the unit, never used again
  std::uint16_t port = 0;
  std::uint16_t outerVlan = 0;
  std::uint16_t innerVlan = 0;
  std::uint32_t version = 0;  // of its settings
};

KelpTunnelNiLib::VlanEditResourceKey vlanEdit(std::uint32_t edit) {
  KelpTunnelNiLib::VlanEditResourceKey key;
  auto& untaggedFrames = key.elements[static_cast<std::size_t>(TagFormat::untagged)];
  untaggedFrames.outerAction = VlanAction::push;
  untaggedFrames.outerVlan = static_cast<std::uint16_t>(100 + edit);
  untaggedFrames.outerTpid = kTpid;
  auto& taggedFrames = key.elements[static_cast<std::size_t>(TagFormat::singleTpid0)];
  taggedFrames.outerAction = edit % 2 == 0 ? VlanAction::swap : VlanAction::pop;
  taggedFrames.outerVlan = static_cast<std::uint16_t>(edit % 2 == 0 ? 200 + edit : 0);
  taggedFrames.outerPriority = static_cast<std::uint8_t>(edit % 8);
  return key;
}

class Unit {
 public:
  Unit(Asic::UnitId id, std::mt19937_64& random, std::vector<Intent>& out)
      : id_(id), random_(random), out_(out) {}

  [[nodiscard]] bool full() const { return services_.size() >= kMostServices; }
  [[nodiscard]] bool empty() const { return services_.empty(); }

  void setUp() {
    Service service;
    service.number = ++lastNumber_;
    const std::uint64_t draw = random_() % 100;
    if (draw < 4 && untaggedPorts_ < kPorts) {
      service.kind = Kind::untaggedPort;
      service.port = untaggedPorts_++;
    } else if (draw < 40) {
      service.kind = Kind::taggedPort;
      nextTag(service);
    } else if (draw < 62) {
      service.kind = Kind::doubleTaggedPort;
      nextTag(service);
      service.innerVlan = static_cast<std::uint16_t>(1 + random_() % 4000);
    } else {
      service.kind = draw < 82 ? Kind::pseudowire : Kind::tunnel;
      service.port = static_cast<std::uint16_t>(random_() % kPorts);
    }
    write(service, std::nullopt);
    services_.push_back(service);
  }

  // Writes one again with other settings.
  void change() {
    Service& service = any();
    ++service.version;
    write(service, std::nullopt);
  }
  // Writes one entry of one again as it is.
  void repeat() { write(any(), random_() % 4); }
  void takeDown() {
    const std::size_t at = random_() % services_.size();
    const Service service = services_[at];
    services_[at] = services_.back();
    services_.pop_back();
    remove(service);
  }
  // Empties a table, and sets a third of it up again.
  void restartTable(std::size_t table) {
    Common::withTable(table, [&](auto tag) {
      out_.push_back(intent(IntentOp::removeAll, EntryOf<typename decltype(tag)::Table>{}));
    });
    std::size_t count = 0;
    for (const Service& service : services_) {
      forEachEntry(service, [&](AnyEntry entry) {
        if (entry.index() == table && count++ % 3 == 0) {
          out_.push_back(intent(IntentOp::write, std::move(entry)));
        }
      });
    }
  }

 private:
  Service& any() { return services_[random_() % services_.size()]; }
  void nextTag(Service& service) {
    // VLANs of a port one after the other, so that no two services have one.
    service.port = static_cast<std::uint16_t>(nextTag_ % kPorts);
    service.outerVlan = static_cast<std::uint16_t>(1 + nextTag_ / kPorts % 4094);
    ++nextTag_;
  }
  Intent intent(IntentOp op, AnyEntry entry) const {
    Intent made;
    made.op = op;
    made.unit = id_;
    made.entry = std::move(entry);
    return made;
  }
  // Adds a write or remove that comes after `after`; gives what the next one may come after.
  std::optional<EntryName> add(IntentOp op, AnyEntry entry, std::optional<EntryName> after) {
    EntryName name{id_, Common::keyOf(entry)};
    Intent made = intent(op, std::move(entry));
    made.after = std::move(after);
    out_.push_back(std::move(made));
    return name;
  }

  // ---- the entries of a service

  [[nodiscard]] KelpInLif::InLifKey inLif(const Service& service) const {
    KelpInLif::InLifKey key;
    key.attachmentCircuit = service.number;
    key.outerVlan = service.outerVlan;
    key.innerVlan = service.innerVlan;
    key.bridgeDomain = 100 + service.version;
    return key;
  }
  [[nodiscard]] EntryOf<LemVpwsAc> crossConnect(const Service& service) const {
    EntryOf<LemVpwsAc> made;
    auto& entry = made.entry.logEntry;
    entry.key.attachmentCircuit = service.number;
    entry.key.port = service.port;
    entry.key.outerVlan = service.outerVlan;
    entry.key.innerVlan = service.innerVlan;
    entry.outLifProfile = static_cast<std::uint16_t>(service.number % 64);
    entry.crossConnect = static_cast<std::uint16_t>(service.number % 60'000);
    entry.outLif = 1'000'000 + service.number * 4 + service.version % 4;
    entry.vcLabelProfile = static_cast<std::uint16_t>(service.version);
    entry.controlWord = static_cast<std::uint8_t>(service.number % 2);
    return made;
  }
  [[nodiscard]] EntryOf<Isem1Tag> oneTag(const Service& service) const {
    EntryOf<Isem1Tag> made;
    made.entry.logEntry.key = {service.port, service.outerVlan};
    made.entry.rsrcKeys.inLifIdxKey = inLif(service);
    return made;
  }
  [[nodiscard]] EntryOf<Isem2Tag> twoTags(const Service& service) const {
    EntryOf<Isem2Tag> made;
    made.entry.logEntry.key = {service.port, service.outerVlan, service.innerVlan};
    made.entry.rsrcKeys.inLifIdxKey = inLif(service);
    return made;
  }
  [[nodiscard]] EntryOf<IsemUntagged> untagged(const Service& service) const {
    EntryOf<IsemUntagged> made;
    made.entry.logEntry.key = service.port;
    made.entry.rsrcKeys.inLifIdxKey = inLif(service);
    return made;
  }
  [[nodiscard]] EntryOf<IsemMpls> label(const Service& service) const {
    EntryOf<IsemMpls> made;
    made.entry.logEntry.key.label = 16 + service.number % 0xffff0;
    made.entry.logEntry.key.port = service.port;
    made.entry.rsrcKeys.inLifIdxKey = inLif(service);
    made.entry.rsrcKeys.inLifIdxKey.tunnel = service.number;
    made.entry.rsrcKeys.inLifIdxKey.flowLabel = service.version % 0xfffff;
    return made;
  }
  [[nodiscard]] EntryOf<IsemInnerEth> innerEth(const Service& service) const {
    EntryOf<IsemInnerEth> made;
    made.entry.logEntry.key.tunnel = static_cast<std::uint16_t>(service.number >> 4);
    made.entry.logEntry.key.vlan = static_cast<std::uint16_t>(service.number & 0xf);
    // Numbers go on beyond 20 bits in a long life.
    made.entry.logEntry.key.vlan |= static_cast<std::uint16_t>((service.number >> 20 & 0xff) << 4);
    made.entry.logEntry.inLif = 5'000'000 + service.number * 16 + service.version % 16;
    return made;
  }
  [[nodiscard]] EntryOf<EsemFodo> encapsulation(const Service& service) const {
    EntryOf<EsemFodo> made;
    made.entry.logEntry.key = service.number;
    made.entry.logEntry.outLif = static_cast<std::uint16_t>(1 + service.number % 65'000);
    made.entry.logEntry.tpidProfile = static_cast<std::uint8_t>(service.version);
    return made;
  }
  [[nodiscard]] EntryOf<EsemFodoVd> taggedEncapsulation(const Service& service) const {
    EntryOf<EsemFodoVd> made;
    made.entry.logEntry.key = {service.number, service.outerVlan, service.port};
    made.entry.logEntry.outLif = 2'000'000 + service.number;
    made.entry.logEntry.tpidProfile = static_cast<std::uint8_t>(service.version % 4);
    auto& keys = made.entry.rsrcKeys;
    keys.vlanEditProfileKey =
        vlanEdit(service.number % 2 == 0 ? kCommonVlanEdit
                                         : (service.number / 2 + service.version) % kVlanEdits);
    // A profile has one type, whoever asks for it.
    const std::uint32_t remarkPort = 1 + service.port % kRemarkPorts;
    keys.remarkProfileKey.intf = Netkit::IntfId::fromName("Ethernet" + std::to_string(remarkPort));
    keys.remarkProfileType = static_cast<std::uint16_t>(1 + remarkPort % 3);
    return made;
  }

  // Calls each(entry) for the entries of a service in the order in which they have to be there.
  template <class Each>
  void forEachEntry(const Service& service, Each&& each) const {
    switch (service.kind) {
      case Kind::taggedPort:
        each(AnyEntry(crossConnect(service)));
        each(AnyEntry(oneTag(service)));
        each(AnyEntry(taggedEncapsulation(service)));
        break;
      case Kind::doubleTaggedPort:
        each(AnyEntry(crossConnect(service)));
        each(AnyEntry(twoTags(service)));
        each(AnyEntry(taggedEncapsulation(service)));
        break;
      case Kind::untaggedPort:
        each(AnyEntry(crossConnect(service)));
        each(AnyEntry(untagged(service)));
        break;
      case Kind::pseudowire:
        each(AnyEntry(encapsulation(service)));
        each(AnyEntry(label(service)));
        break;
      case Kind::tunnel:
        each(AnyEntry(encapsulation(service)));
        each(AnyEntry(innerEth(service)));
        break;
    }
  }

  // All entries, or with `only` that one of them, counted round.
  void write(const Service& service, std::optional<std::uint64_t> only) {
    std::size_t count = 0;
    forEachEntry(service, [&](const AnyEntry&) { ++count; });
    std::optional<EntryName> last;
    std::size_t at = 0;
    forEachEntry(service, [&](AnyEntry entry) {
      if (!only || *only % count == at) {
        last = add(IntentOp::write, std::move(entry), last);
      }
      ++at;
    });
  }
  // In the opposite order: what refers to another goes first.
  void remove(const Service& service) {
    std::vector<AnyEntry> entries;
    forEachEntry(service, [&](AnyEntry entry) { entries.push_back(std::move(entry)); });
    std::reverse(entries.begin(), entries.end());
    std::optional<EntryName> last;
    for (AnyEntry& entry : entries) {
      last = add(IntentOp::remove, std::move(entry), last);
    }
  }

  Asic::UnitId id_;
  std::mt19937_64& random_;
  std::vector<Intent>& out_;
  std::vector<Service> services_;
  std::uint32_t lastNumber_ = 0;
  std::uint32_t nextTag_ = 0;
  std::uint16_t untaggedPorts_ = 0;
};

}  // namespace

KelpTunnelNiLib::VlanEditResourceKey commonVlanEdit() { return vlanEdit(kCommonVlanEdit); }

std::vector<Intent> ownVlanEdits(IntentOp op, std::uint32_t count) {
  std::vector<Intent> intents;
  for (std::uint32_t i = 0; i < count; ++i) {
    EntryOf<EsemFodoVd> made;
    made.entry.logEntry.key.fodo = kNoService + i;
    made.entry.logEntry.outLif = 3'000'000 + i;
    made.entry.rsrcKeys.vlanEditProfileKey = vlanEdit(kVlanEdits + i);
    Intent& intent = intents.emplace_back();
    intent.op = op;
    intent.entry = made;
  }
  return intents;
}

std::vector<Intent> metroEdge(const Plan& plan) {
  std::mt19937_64 random(plan.seed);
  std::vector<Intent> intents;
  intents.reserve(plan.intents + 64);
  std::vector<Unit> units;
  for (unsigned i = 0; i < plan.units; ++i) {
    units.emplace_back(Asic::UnitId{static_cast<std::uint16_t>(i)}, random, intents);
  }
  // Two thirds are mostly setting up, then come changes of all kinds. Each table is restarted once
  // on one of the units, the first when 70 % are through, the last at 91 %.
  std::size_t restarted = 0;
  while (intents.size() < plan.intents) {
    const bool young = intents.size() < plan.intents * 2 / 3;
    Unit& unit = units[random() % units.size()];
    const std::uint64_t draw = random() % 100;
    if (restarted < Common::kTables &&
        intents.size() >= plan.intents * (70 + 3 * restarted) / 100) {
      units[restarted % units.size()].restartTable(restarted);
      ++restarted;
    } else if (unit.empty() || (!unit.full() && draw < (young ? 80U : 25U))) {
      unit.setUp();
    } else if (draw < (young ? 88U : 60U)) {
      unit.change();
    } else if (draw < (young ? 94U : 75U)) {
      unit.repeat();
    } else {
      unit.takeDown();
    }
  }
  intents.resize(plan.intents);
  return intents;
}

}  // namespace Demo
