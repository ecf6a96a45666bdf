#include "agent/InspectionValues.h"

#include <fmt/format.h>

#include <limits>

#include "Brio/InspectPlace.h"
#include "agent/InspectionError.h"
#include "agent/InspectionParams.h"
#include "common/JsonRpc.h"

namespace Agent {

using Brio::InspectPlace;

namespace {

constexpr std::uint64_t kAny = std::numeric_limits<std::uint64_t>::max();

InspectPlace::Args argsOf(const InspectionCall& call, const InspectionParams& params) {
  InspectPlace::Args args;
  for (const Common::Json& one : params.list("args")) {
    args.push_back(call.session.valueOf(one, fmt::format("args[{}]", args.size())));
  }
  return args;
}

}  // namespace

void inspectRead(InspectionCall& call) {
  const InspectionParams params(call.params, {"path"});
  const InspectPlace place = call.session.find(params.text("path"));
  call.session.appendValue(call.out, place.read(), place.path(), place.leadsBack());
}

void inspectWrite(InspectionCall& call) {
  const InspectionParams params(call.params, {"path", "value", "args"});
  const InspectPlace place = call.session.find(params.text("path"));
  if (params.has("value") == params.has("args")) {
    throw InspectionError(Common::JsonRpc::kWrongParams,
                          "value: write either \"value\" or \"args\"");
  }
  call.session.checkMayChange(place.path());
  place.write(params.has("args")
                  ? argsOf(call, params)
                  : InspectPlace::Args{call.session.valueOf(params.value("value"), "value")});
  call.out += "null";
}

void inspectCall(InspectionCall& call) {
  const InspectionParams params(call.params, {"path", "args"});
  const InspectPlace place = call.session.find(params.text("path"));
  const InspectPlace::Args args = params.has("args") ? argsOf(call, params) : InspectPlace::Args{};
  if (place.field() && place.field()->attribute.isOperation() &&
      place.field()->attribute.has(Lumen::kInspectMutating)) {
    call.session.checkMayChange(place.path());
  }
  call.session.appendValue(call.out, place.call(args), place.path(), false);
}

void inspectSubscribe(InspectionCall& call) {
  const InspectionParams params(call.params, {"path"});
  const std::uint64_t number = call.session.subscribe(call.session.find(params.text("path")));
  call.out += fmt::format("{}", number);
}

void inspectUnsubscribe(InspectionCall& call) {
  const InspectionParams params(call.params, {"subscription"});
  call.session.unsubscribe(params.number("subscription", 0, kAny));
  call.out += "null";
}

void inspectRelease(InspectionCall& call) {
  const InspectionParams params(call.params, {"ref"});
  call.session.release(params.text("ref"));
  call.out += "null";
}

}  // namespace Agent
