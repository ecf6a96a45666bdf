#include "agent/WaitingReport.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "BriskTrace/Reader.h"
#include "agent/ReportParams.h"
#include "agent/Waiting.h"

namespace Agent {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::uint64_t kUsualLimit = 1000;
constexpr std::uint64_t kMostLimit = 10000;

Json reasonsJson(const std::vector<Waiting::Reason>& reasons) {
  Json all = Json::array();
  for (const Waiting::Reason& reason : reasons) {
    Json one = {{"kind", reason.kind}};
    one.update(reason.details);
    one["text"] = reason.text;
    all.push_back(std::move(one));
  }
  return all;
}

}  // namespace

Json operationJson(const Common::AnyTable& table, const Source& source, std::uint64_t line,
                   Common::IntentOp op, const Common::AnyKey& key, Intake::Clock::time_point since,
                   bool again) {
  Json json = {{"source", source.name()},
               {"line", line},
               {"op", Common::name(op)},
               {"table", table.name()},
               {"unit", table.unit().value}};
  if (op != Common::IntentOp::removeAll) {
    std::string text;
    Common::appendKey(text, key);
    json["key"] = Json::parse(text);
  }
  const auto waited = std::max(Intake::Clock::now() - since, Intake::Clock::duration::zero());
  const auto wall = std::chrono::system_clock::now() - waited;
  json["since"] = BriskTrace::timeText(
      std::chrono::duration_cast<std::chrono::nanoseconds>(wall.time_since_epoch()).count());
  json["seconds"] = std::round(std::chrono::duration<double>(waited).count() * 1000) / 1000;
  json["again"] = again;
  return json;
}

// What one call does.
class WaitingReport::Portion {
 public:
  // False once it is used up.
  [[nodiscard]] bool look() { return operations_ < kMostOperations && looks_++ < kMostLooks; }
  void operationAdded() { ++operations_; }

 private:
  static constexpr unsigned kMostOperations = 8;
  static constexpr unsigned kMostLooks = 2048;

  unsigned operations_ = 0;
  unsigned looks_ = 0;
};

WaitingReport::WaitingReport(const Intake& intake, const Common::Json& params) : intake_(intake) {
  checkParams(params, {"table", "unit", "cursor", "limit"});
  table_ = readTable(params);
  unit_ = readUnit(params);
  if (unit_) {
    (void)intake.placeOf(0, Asic::UnitId{*unit_});
  }
  left_ = std::max<std::uint64_t>(readParam(params, "limit", kMostLimit).value_or(kUsualLimit), 1);
  cursor_ = readParam(params, "cursor", std::uint64_t{1} << 53).value_or(0);
}

bool WaitingReport::takes(std::size_t place) const {
  const Common::AnyTable& table = *intake_.tables()[place];
  return (!table_ || table.table() == *table_) && (!unit_ || table.unit().value == *unit_);
}

void WaitingReport::add(std::string& out, const Json& operation) {
  out += first_ ? "" : ",";
  out += operation.dump(-1, ' ', false, Json::error_handler_t::replace);
  first_ = false;
  --left_;
}

bool WaitingReport::more(std::string& out) {
  if (!begun_) {
    out += R"({"waiting":[)";
    begun_ = true;
  }
  Portion portion;
  if (cursor_ && *cursor_ % 2 == 0) {
    lookAtSlots(out, portion);
  }
  if (cursor_ && *cursor_ % 2 == 1) {
    lookAtRetries(out, portion);
  }
  if (cursor_ && left_ != 0 && looks_ != 0) {
    return false;
  }
  out += fmt::format(R"(],"cursor":{}}})", cursor_ ? std::to_string(*cursor_) : "null");
  return true;
}

void WaitingReport::lookAtSlots(std::string& out, Portion& portion) {
  const auto& slots = intake_.slots();
  Waiting waiting(intake_);
  std::size_t at = *cursor_ / 2;
  for (; at < slots.size() && left_ != 0 && looks_ != 0 && portion.look(); ++at, --looks_) {
    const Intake::Slot& slot = slots[at];
    if (slot.source && takes(slot.place)) {
      Json one = operationJson(*intake_.tables()[slot.place], *slot.source, slot.line, slot.op,
                               slot.key, slot.since, slot.again);
      one["waitsFor"] = reasonsJson(waiting.reasonsOf(slot));
      add(out, one);
      portion.operationAdded();
    }
  }
  cursor_ = at < slots.size() ? 2 * at : 1;
}

void WaitingReport::lookAtRetries(std::string& out, Portion& portion) {
  const std::uint64_t from = *cursor_ / 2;
  cursor_ = std::nullopt;
  intake_.retries().forEach(
      from, [&](std::uint64_t number, const HeldWrite& write, const Retries::Missing& missing) {
        if (left_ == 0 || looks_ == 0 || !portion.look()) {
          cursor_ = 2 * number + 1;
          return false;
        }
        --looks_;
        if (takes(write.place)) {
          Json one = operationJson(*intake_.tables()[write.place], *write.source.get(), write.line,
                                   Common::IntentOp::write, write.key, write.since, true);
          one["waitsFor"] = reasonsJson(Waiting::reasonsOf(missing));
          add(out, one);
          portion.operationAdded();
        }
        return true;
      });
}

}  // namespace Agent
