#pragma once

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "BrioSharedMem/EntityManager.h"
#include "Lumen/Publisher.h"
#include "TableFixture.h"

// What tests of the software table have in common, beyond an agent: a second table of the group, a
// look into the logs, and the order in which things happen.

namespace TestSupport {

// Another table of the group than T.
template <class T>
struct OtherTable {
  using Type = KelpEmServer::EsemFodo;
};
template <>
struct OtherTable<KelpEmServer::EsemFodo> {
  using Type = KelpEmServer::LemVpwsAc;
};

// What happened, in order, as short texts.
using Events = std::vector<std::string>;

// Notes every change that a software table publishes: the attribute's number, the key, and what was
// there before.
template <class T>
class TableWatch final : private Lumen::Subscriber {
 public:
  using Table = KelpEmServer::KelpSwTable<T>;
  using Key = typename Table::Key;

  TableWatch(const Lumen::Ptr<Table>& table, Events& events)
      : Subscriber(&TableWatch::changed), table_(table), events_(events) {
    table_->publisher()->subscriberAdd(this);
  }
  ~TableWatch() { table_->publisher()->subscriberRemove(this); }

 private:
  template <class Value>
  static const Value& at(const void* value) {
    return *static_cast<const Value*>(value);
  }
  template <class Pointer>
  static std::string was(const void* old) {
    const auto& pointer = at<Pointer>(old);
    return pointer ? fmt::format("was {}", pointer->entryHandle()->version()) : "was none";
  }

  static void changed(Lumen::Publisher*, Lumen::Subscriber* self, Lumen::FieldId field,
                      const void* key, const void* old) {
    static_cast<TableWatch*>(self)->events_.push_back(
        fmt::format("{} {}", field.value, text(field.attribute(), key, old)));
  }
  static std::string text(unsigned attribute, const void* key, const void* old) {
    switch (attribute) {
      case 898:
        return fmt::format("was {}", fmt::ptr(at<Lumen::Ptr<typename Table::Helper>>(old).get()));
      case 899:
      case 900:
        return fmt::format("{} {}", at<Key>(key), was<Lumen::Ptr<typename Table::Wrapper>>(old));
      case 901:
        return fmt::format("{} was {}", at<Key>(key), at<Asic::EntryVersion>(old));
      case 902:
        return fmt::format("was {}", at<Asic::MajorVersion>(old));
      case 907:
        return old == nullptr
                   ? fmt::format("enq {}", at<unsigned>(key))
                   : fmt::format("deq {} of {}", at<unsigned>(key),
                                 at<Lumen::Ptr<typename Table::EntryHandle>>(old)->logVersion());
      case 916:
        return fmt::format("{}", at<Key>(key));
      case 917:
        return fmt::format("was {}", at<bool>(old));
      default:
        return "?";
    }
  }

  Lumen::Ptr<Table> table_;
  Events& events_;
};

// Notes the states that a handle goes through.
class HandleWatch final : private Lumen::Subscriber {
 public:
  HandleWatch(const Lumen::Ptr<const Asic::OrderedSwTable::EntryHandle>& handle, Events& events)
      : Subscriber(&HandleWatch::changed), handle_(handle), events_(events) {
    handle_->publisher()->subscriberAdd(this);
  }
  ~HandleWatch() { handle_->publisher()->subscriberRemove(this); }

 private:
  static void changed(Lumen::Publisher*, Lumen::Subscriber* self, Lumen::FieldId, const void*,
                      const void*) {
    auto* watch = static_cast<HandleWatch*>(self);
    watch->events_.push_back(fmt::format("state {} at {}",
                                         static_cast<unsigned>(watch->handle_->entryState()),
                                         watch->handle_->logVersion()));
  }

  Lumen::Ptr<const Asic::OrderedSwTable::EntryHandle> handle_;
  Events& events_;
};

// Notes the pending flag of a table's status.
class StatusWatch final : private Lumen::Subscriber {
 public:
  StatusWatch(const Lumen::Ptr<Asic::OrderedSwTableStatus>& status, Events& events)
      : Subscriber(&StatusWatch::changed), status_(status), events_(events) {
    status_->publisher()->subscriberAdd(this);
  }
  ~StatusWatch() { status_->publisher()->subscriberRemove(this); }

 private:
  static void changed(Lumen::Publisher*, Lumen::Subscriber* self, Lumen::FieldId, const void*,
                      const void*) {
    auto* watch = static_cast<StatusWatch*>(self);
    watch->events_.push_back(fmt::format("pending {}", watch->status_->pendingHwWrites()));
  }

  Lumen::Ptr<Asic::OrderedSwTableStatus> status_;
  Events& events_;
};

// Notes traces, in the form "HANDLE LEVEL: TEXT" without the table's name in HANDLE.
template <class T>
class TraceWatch {
 public:
  TraceWatch(const std::string& settings, Events& events) : events_(events) {
    Brio::TraceHandle::settingsIs(settings);
    previous_ = Lumen::traceSinkIs([this](const Lumen::TraceRecord& record) {
      std::string_view name = record.handleName;
      if (name.starts_with(T::name.view())) {
        name.remove_prefix(T::name.view().size() + std::string_view("Kelp").size());
      }
      events_.push_back(fmt::format("{} {}: {}", name, record.level, record.text));
    });
  }
  ~TraceWatch() {
    Lumen::traceSinkIs(previous_);
    Brio::TraceHandle::settingsIs("");
    Brio::TraceHandle::forEach([](Brio::TraceHandle& handle) { handle.maskIs(0); });
  }
  TraceWatch(const TraceWatch&) = delete;
  TraceWatch& operator=(const TraceWatch&) = delete;

 private:
  Events& events_;
  Lumen::TraceSink previous_;
};

// The text as a regular expression that fits it and nothing else, for death tests.
inline std::string literally(std::string_view text) {
  std::string pattern;
  for (const char c : text) {
    if (std::string_view("\\^$.|?*+()[]{}").find(c) != std::string_view::npos) {
      pattern += '\\';
    }
    pattern += c;
  }
  return pattern;
}
// What a failed assertion of `expression` prints.
inline std::string assertion(std::string_view expression) {
  return literally("Assertion `" + std::string(expression) + "' failed.");
}

template <class T>
class TableTest : public TableFixture<T> {
 public:
  using Fixture = TableFixture<T>;
  using typename Fixture::Key;
  using typename Fixture::Table;
  using Handle = Lumen::Ptr<const Asic::OrderedSwTable::EntryHandle>;
  using Wrapper = typename Table::Wrapper;
  using Resolver = typename Table::Resolver;
  using Log = KelpEmServer::KelpEntryLog<T>;
  using Other = typename OtherTable<T>::Type;
  using OtherSwTable = KelpEmServer::KelpSwTable<Other>;

  static std::string text(std::uint64_t number) { return fmt::format("{}", Fixture::key(number)); }
  static unsigned state(const Handle& handle) {
    return static_cast<unsigned>(handle->entryState());
  }
  static std::string version(const Handle& handle) { return fmt::format("{}", handle->version()); }

 protected:
  // Accepts a write or a remove without committing it.
  Handle write(const Lumen::Ptr<Table>& table, std::uint64_t number, std::uint64_t variant = 0) {
    return table->entryWrite(this->key(number), this->entry(number, variant), nullptr);
  }
  Handle remove(const Lumen::Ptr<Table>& table, std::uint64_t number) {
    return table->entryRemove(this->key(number), nullptr);
  }

  // The table of another type, of the same group and unit.
  Lumen::Ptr<OtherSwTable> other() {
    this->start();
    return KelpEmServer::KelpInterface<Other>::getIntf(this->agent_)
        ->makeSwTable(Fixture::unit0, nullptr, false);
  }
  Lumen::Ptr<const Asic::OrderedSwTable::EntryHandle> writeOther(
      std::uint64_t number, const Lumen::Ptr<const Asic::DependencyEntryHandle>& on = nullptr) {
    using OtherEntry = typename Other::Entry;
    const auto key = sampleKey<typename OtherEntry::Key>(number);
    return other()->entryWrite(key, sampleEntry<OtherEntry>(key, 0), on);
  }
  // A handle of this table that stands in the given state and at the given log version.
  Lumen::Ptr<typename Table::EntryHandle> handleIn(const Lumen::Ptr<Table>& table, unsigned state,
                                                   std::uint64_t logVersion = 0) {
    const auto handle = Table::entryHandleFactory(Asic::EntryVersion(), this->key(77), table.get());
    handle->logVersionIs(Asic::LogVersion{logVersion});
    handle->entryStateIs(static_cast<Asic::EntryState>(state));
    return handle;
  }

  Lumen::Ptr<Log> log() { return this->intf()->entryLog(); }
  auto& changeLog() { return log()->tableEntryLog()->entryLogConfig(); }
  std::uint64_t tableVersion() { return log()->tableVersion().value; }
  // A copy of the log record of `version`; the default one if there is none.
  typename Log::LogRecord logRecord(std::uint64_t version) {
    bool found = false;
    const auto& record = changeLog().find(Asic::LogVersion{version}, found);
    return found ? record : typename Log::LogRecord();
  }
  typename Log::ConfigRecord configRecord(std::uint64_t number,
                                          Asic::UnitId unit = Fixture::unit0) {
    return Log::findRecord(*log()->tableConfigQuilt(unit), this->key(number));
  }
  // What the log record of `version` waits for in other tables, as the hardware side reads it.
  std::vector<Asic::TableVersion> needed(std::uint64_t version) {
    const auto quilt = Lumen::dynamicPtrCast<Asic::NeededQuilt>(
        this->memory()->getEntity(Asic::Constants::groupNeededPath(
            Asic::Constants::canonicalizeGroupName("KelpTunnelNi", "KelpEmServerGroup"),
            T::tableId)));
    bool found = false;
    const auto& record = quilt->map().find(Asic::LogVersion{version}, found);
    std::vector<Asic::TableVersion> all;
    for (std::uint32_t i = 0; found && i < record.count; ++i) {
      all.push_back({record.needed[i].tableId, record.needed[i].version});
    }
    return all;
  }
};

}  // namespace TestSupport
