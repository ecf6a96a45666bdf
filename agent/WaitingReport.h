#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "agent/Intake.h"
#include "common/Json.h"

namespace Agent {

// A page of the operations that have no outcome, and of the writes that have failed and are tried
// again, in no order:
//
//   {"waiting":[{"source","line","op","table","unit","key","since","seconds","again",
//                "waitsFor":[{"kind","text",...}]}],"cursor":N}
//
// `params` may have `table`, `unit`, `limit` (1000 if left out, 10000 at most) and `cursor`, of the
// page before; the cursor is null at the end. An operation that has no outcome from the first page
// to the last is in one of them, and once. A page is a look at kMostLooked operations at most, and
// may be short for that.
class WaitingReport {
 public:
  static constexpr std::size_t kMostLooked = 65536;

  // Throws Common::InputError for params that do not fit. The intake must outlive it.
  WaitingReport(const Intake& intake, const Common::Json& params);

  // Adds what some 50 us of work give; true once the page is whole. The intake may go on between
  // two calls.
  [[nodiscard]] bool more(std::string& out);

 private:
  class Portion;

  [[nodiscard]] bool takes(std::size_t place) const;
  void add(std::string& out, const nlohmann::ordered_json& operation);
  void lookAtSlots(std::string& out, Portion& portion);
  void lookAtRetries(std::string& out, Portion& portion);

  const Intake& intake_;
  std::optional<std::size_t> table_;
  std::optional<std::uint16_t> unit_;
  std::uint64_t left_;               // operations that the page may still have,
  std::size_t looks_ = kMostLooked;  // and looks
  // Twice the slot to go on with, or twice the number of the write and one; nothing at the end.
  std::optional<std::uint64_t> cursor_;
  bool begun_ = false;
  bool first_ = true;
};

// One operation, without what it waits for; `again` is that of a write that is tried again.
[[nodiscard]] nlohmann::ordered_json operationJson(const Common::AnyTable& table,
                                                   const Source& source, std::uint64_t line,
                                                   Common::IntentOp op, const Common::AnyKey& key,
                                                   Intake::Clock::time_point since, bool again);

}  // namespace Agent
