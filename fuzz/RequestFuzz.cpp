#include <cstddef>
#include <cstdint>
#include <string>

#include "Want.h"
#include "common/Json.h"
#include "common/JsonRpc.h"

// A line of the inspection socket: requests, or errors in their places; nothing is thrown. Whatever
// is answered is JSON, and a request that was taken reads back as the same.

namespace Fuzz {
namespace {

namespace JsonRpc = Common::JsonRpc;
using Common::Json;

void answerIsJson(const JsonRpc::Request& request) {
  const std::string id = request.id.empty() ? "null" : request.id;
  std::string error;
  JsonRpc::appendError(error, id, request.code, request.wrong, request.method);
  want(Json::accept(error), "an error is JSON");
  std::string result;
  JsonRpc::appendResultStart(result, id);
  result += "null}";
  want(Json::accept(result) && Json::parse(result)["id"] == Json::parse(id),
       "a result is JSON, with the id of the request");
}

void readsBack(const JsonRpc::Request& request) {
  Json written{{"jsonrpc", "2.0"}, {"method", request.method}};
  if (!request.id.empty()) {
    written["id"] = Json::parse(request.id);
  }
  if (!request.params.is_null()) {
    want(request.params.is_object(), "params are an object");
    written["params"] = request.params;
  }
  const JsonRpc::Line line = JsonRpc::parse(written.dump());
  want(!line.batch && line.requests.size() == 1, "one request is one");
  const JsonRpc::Request& again = line.requests.front();
  want(again.code == 0 && again.id == request.id && again.method == request.method &&
           again.params == request.params,
       "a written request reads back as the same");
}

}  // namespace
}  // namespace Fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using Fuzz::want;
  const std::string text(data, data + size);
  const auto line = Common::JsonRpc::parse(text);
  want(!line.requests.empty() && line.requests.size() <= Common::JsonRpc::kMostRequests,
       "a line has requests, and not too many");
  for (const auto& request : line.requests) {
    want((request.code == 0) == request.wrong.empty(), "an error has a text");
    Fuzz::answerIsJson(request);
    if (request.code == 0) {
      Fuzz::readsBack(request);
    }
  }
  return 0;
}
