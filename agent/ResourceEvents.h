#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "agent/Source.h"
#include "agent/Store.h"
#include "common/ResourceEvent.h"

namespace Agent {

// Carries out events of resources and tells each source at once how that ended. To be called from
// the loop only: a change rewrites every entry that uses the resource before the call returns, and
// refusals and the like are told to whoever waits.
class ResourceEvents {
 public:
  struct Totals {
    std::uint64_t applied = 0;
    std::uint64_t failed = 0;
  };

  // The store must outlive it.
  explicit ResourceEvents(const Store& store) : store_(store) {}
  ResourceEvents(const ResourceEvents&) = delete;
  ResourceEvents& operator=(const ResourceEvents&) = delete;

  void take(const Common::ResourceEvent& event, Source& source, std::uint64_t line);

  // Takes one of an earlier run's file, which applyFolded() carries out: of the refusals of a
  // resource the last one counts, and of what is said of its being ready. A change has happened.
  void fold(const Common::ResourceEvent& event, Source& source, std::uint64_t line);
  void applyFolded();

  [[nodiscard]] const Totals& totals() const noexcept { return totals_; }

 private:
  struct Last {
    std::optional<Common::ResourceEventKind> refusal;
    std::optional<Common::ResourceEventKind> stage;
  };

  [[nodiscard]] std::string apply(const Common::AnyResourceKey& key,
                                  Common::ResourceEventKind kind) const;
  void tell(const Common::ResourceEvent& event, Source& source, std::uint64_t line,
            const std::string& failure);

  const Store& store_;
  std::map<Common::AnyResourceKey, Last> folded_;
  Totals totals_;
};

}  // namespace Agent
