#include "kelp/Get.h"
#include "kelp/LiveCommands.h"
#include "kelp/PlainJson.h"

namespace Kelp {

namespace {

Json argumentsOf(const Options& options) {
  Json arguments = Json::array();
  for (const std::string& argument : options.arguments) {
    arguments.push_back(argumentJson(argument));
  }
  return arguments;
}

}  // namespace

void setValue(Live& live) {
  Json arguments = argumentsOf(live.options());
  Json params = {{"path", live.options().path}};
  if (arguments.size() == 1) {
    params["value"] = std::move(arguments[0]);
  } else {
    params["args"] = std::move(arguments);
  }
  const Json done = live.agent().call("write", params);
  if (live.json()) {
    live.printJson(done);
  }
}

void callOperation(Live& live) {
  const Json result = live.agent().call(
      "call", {{"path", live.options().path}, {"args", argumentsOf(live.options())}});
  // An object that is held for this connection alone is of no use afterwards.
  if (result.is_object() && result.size() == 1 && result.contains("ref") &&
      result["ref"].get<std::string>().starts_with('$')) {
    showPlace(live, result["ref"]);
  } else if (live.json()) {
    live.printJson(result);
  } else if (!result.is_null()) {
    live.out().line(plainText(result));
  }
}

}  // namespace Kelp
