#include "agent/InspectionReports.h"

#include <memory>
#include <nlohmann/json.hpp>

#include "agent/InspectionError.h"
#include "agent/ReportParams.h"
#include "agent/TraceReport.h"
#include "agent/UsersReport.h"
#include "agent/WaitingReport.h"
#include "common/JsonRpc.h"

namespace Agent {
namespace {

using Json = nlohmann::ordered_json;

// Gives what `make` gives. What it finds wrong in the params has the code of that.
template <class Make>
auto fromParams(Make make) {
  try {
    return make();
  } catch (const Common::InputError& error) {
    throw InspectionError(Common::JsonRpc::kWrongParams, error.what());
  }
}

// Names of files may be no UTF-8.
void append(std::string& out, const Json& report) {
  out += report.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace

void inspectStats(InspectionCall& call) {
  fromParams([&] { checkParams(call.params, {}); });
  const InspectionContext& agent = call.agent;
  append(call.out, statsReport(agent.options, agent.store, agent.intake, agent.figures()));
}

void inspectTrace(InspectionCall& call) {
  if (setsTrace(call.params)) {
    call.session.checkMayChange("trace");
  }
  append(call.out, fromParams([&] { return traceReport(call.agent.options.brisk, call.params); }));
}

void inspectUsers(InspectionCall& call) {
  append(call.out,
         fromParams([&] { return usersReport(call.agent.store, call.agent.intake, call.params); }));
}

void inspectVersions(InspectionCall& call) {
  append(call.out, fromParams([&] { return call.agent.history.report(call.params); }));
}

void inspectWaiting(InspectionCall& call) {
  const auto report =
      fromParams([&] { return std::make_shared<WaitingReport>(call.agent.intake, call.params); });
  call.more = [report](std::string& out) { return report->more(out); };
}

}  // namespace Agent
