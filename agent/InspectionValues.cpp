#include "agent/InspectionValues.h"

#include <fmt/format.h>

#include <limits>

#include "Brio/InspectPlace.h"
#include "agent/InspectionError.h"
#include "agent/InspectionParams.h"
#include "common/JsonRpc.h"

namespace Agent {

using Brio::InspectPlace;
using From = InspectionSession::From;

namespace {

constexpr std::uint64_t kAny = std::numeric_limits<std::uint64_t>::max();

// Arguments may cost something: the place has to take as many, and the peer to be allowed it.
InspectPlace::Args argsOf(const InspectionCall& call, const InspectPlace& place,
                          const Common::Json& list) {
  place.checkArgs(list.size());
  InspectPlace::Args args;
  for (const Common::Json& one : list) {
    args.push_back(call.session.argumentOf(one, fmt::format("args[{}]", args.size())));
  }
  return args;
}

// Adds what an operation gives, which is to have a place to be held in before it is called.
template <class Operation>
void appendResult(InspectionCall& call, const InspectPlace& place, Operation operation) {
  if (givesObject(place)) {
    call.session.checkMayHold();
  }
  call.session.appendValue(call.out, operation(), place.path(), From::operation);
}

}  // namespace

void inspectRead(InspectionCall& call) {
  const InspectionParams params(call.params, {"path"});
  const InspectPlace place = call.session.find(params.text("path"));
  if (place.leadsBack()) {
    call.session.appendValue(call.out, place.read(), place.path(), From::path);
  } else {
    appendResult(call, place, [&] { return place.read(); });
  }
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
                  ? argsOf(call, place, params.list("args"))
                  : InspectPlace::Args{call.session.argumentOf(params.value("value"), "value")});
  call.out += "null";
}

void inspectCall(InspectionCall& call) {
  const InspectionParams params(call.params, {"path", "args"});
  const InspectPlace place = call.session.find(params.text("path"));
  if (!place.field() || !place.field()->attribute.isOperation()) {
    (void)place.call({});  // says that it is none
  }
  if (place.field()->attribute.has(Lumen::kInspectMutating)) {
    call.session.checkMayChange(place.path());
  }
  const InspectPlace::Args args =
      params.has("args") ? argsOf(call, place, params.list("args")) : InspectPlace::Args{};
  appendResult(call, place, [&] { return place.call(args); });
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
