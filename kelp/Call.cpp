#include "kelp/Get.h"
#include "kelp/LiveCommands.h"
#include "kelp/PlainJson.h"

namespace Kelp {

void setValue(Live& live) {
  const Json done = live.agent().call(
      "write", {{"path", live.options().path}, {"value", argumentJson(live.options().value)}});
  if (live.json()) {
    live.printJson(done);
  }
}

void callOperation(Live& live) {
  Json arguments = Json::array();
  for (const std::string& argument : live.options().arguments) {
    arguments.push_back(argumentJson(argument));
  }
  const Json result =
      live.agent().call("call", {{"path", live.options().path}, {"args", std::move(arguments)}});
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
