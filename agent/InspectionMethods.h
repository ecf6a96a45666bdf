#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "agent/InspectionSession.h"
#include "agent/Intake.h"
#include "agent/Options.h"
#include "agent/StatsReport.h"
#include "agent/Store.h"
#include "agent/VersionHistory.h"
#include "common/Json.h"

namespace Agent {

class InspectionServer;

// What methods may ask of the agent.
struct InspectionContext {
  Store& store;
  Intake& intake;
  const Options& options;
  const VersionHistory& history;
  std::function<LoopFigures()> figures;
};

// A request that is being answered.
struct InspectionCall {
  // Goes on with a result that is too long for one slice of the loop: adds a part to it, some 50 us
  // of work where one member does not take longer, and gives whether it is whole now.
  using More = std::function<bool(std::string& out)>;

  const InspectionContext& agent;
  InspectionServer& server;
  InspectionSession& session;  // of the peer
  const Common::Json& params;  // an object, or null; stays until the result is whole
  std::string& out;            // takes the result, as JSON
  More more;                   // set by the method if the result is not whole yet
};

// Adds a result to `call.out`. Throws InspectionError or Brio::InspectError; then nothing of what
// it has added is sent. Any other exception is that of an operation that failed.
using InspectionMethod = void (*)(InspectionCall& call);

// Whether the value of the attribute that a place is, or of its members, is an object.
[[nodiscard]] bool givesObject(const Brio::InspectPlace& place);

// Null if there is none of this name.
[[nodiscard]] InspectionMethod inspectionMethod(std::string_view name);

}  // namespace Agent
