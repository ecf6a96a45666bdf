#include "common/JsonRpc.h"

#include <fmt/format.h>

#include <functional>
#include <set>
#include <stdexcept>
#include <utility>

namespace Common::JsonRpc {
namespace {

// What is JSON, but nothing that a request has reason to be.
class TooMuch : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Sees every step of the parser, and stops it before it has built something large.
class Watch {
 public:
  bool operator()(int depth, Json::parse_event_t event, Json& parsed) {
    using Event = Json::parse_event_t;
    if (event == Event::object_start || event == Event::array_start) {
      if (depth >= static_cast<int>(kDeepest)) {
        throw TooMuch(fmt::format("nested deeper than {} levels: nest less deep", kDeepest));
      }
      if (names_.size() <= static_cast<std::size_t>(depth) + 1) {
        names_.resize(static_cast<std::size_t>(depth) + 2);
      }
      names_[static_cast<std::size_t>(depth) + 1].clear();
    }
    if (event == Event::key) {
      auto& names = names_[static_cast<std::size_t>(depth)];
      auto& name = parsed.get_ref<const std::string&>();
      if (!names.insert(name).second) {
        throw TooMuch(fmt::format("\"{}\" stands twice in an object: write it once", name));
      }
    }
    if (event != Event::object_end && event != Event::array_end && ++values_ > kMostValues) {
      throw TooMuch(fmt::format("more than {} values: send less at a time", kMostValues));
    }
    return true;
  }

 private:
  std::vector<std::set<std::string>> names_;  // of the objects that are open, by depth
  std::size_t values_ = 0;
};

Request wrongRequest(int code, std::string_view wrong, std::string id = "null") {
  Request request;
  request.id = std::move(id);
  request.code = code;
  request.wrong = InputError(wrong).what();
  return request;
}

Request read(Json& json) {
  if (!json.is_object()) {
    return wrongRequest(kNoRequest, "no request: write an object, {...}");
  }
  Request request;
  const auto id = json.find("id");
  if (id != json.end()) {
    if (!id->is_string() && !id->is_number() && !id->is_null()) {
      return wrongRequest(kNoRequest, "id: write a number, a string or null");
    }
    request.id = id->dump();
  }
  const std::string errorId = request.id.empty() ? "null" : request.id;
  const auto version = json.find("jsonrpc");
  if (version == json.end() || *version != "2.0") {
    return wrongRequest(kNoRequest, R"(jsonrpc: write "2.0")", errorId);
  }
  const auto method = json.find("method");
  if (method == json.end() || !method->is_string()) {
    return wrongRequest(kNoRequest, "method: write the name of one", errorId);
  }
  for (const auto& [name, value] : json.items()) {
    if (name != "id" && name != "jsonrpc" && name != "method" && name != "params") {
      return wrongRequest(
          kNoRequest,
          fmt::format(R"({}: unknown: a request has "jsonrpc", "id", "method" and "params")", name),
          errorId);
    }
  }
  request.method = std::move(method->get_ref<std::string&>());
  const auto params = json.find("params");
  if (params != json.end()) {
    if (!params->is_object()) {
      return wrongRequest(kWrongParams, "params: write an object of named ones, {...}",
                          request.id.empty() ? std::string() : request.id);
    }
    request.params = std::move(*params);
  }
  return request;
}

}  // namespace

Line parse(std::string_view text) {
  Line line;
  Json json;
  try {
    Watch watch;
    json = Json::parse(text.begin(), text.end(), std::ref(watch));
  } catch (const TooMuch& error) {
    line.requests.push_back(wrongRequest(kNoRequest, error.what()));
    return line;
  } catch (const Json::exception& error) {
    line.requests.push_back(
        wrongRequest(kNoJson, fmt::format(R"(no JSON, {}: write one request on a line, such as )"
                                          R"({{"jsonrpc":"2.0","id":1,"method":"objects"}})",
                                          jsonErrorText(error.what()))));
    return line;
  }
  if (!json.is_array()) {
    line.requests.push_back(read(json));
    return line;
  }
  if (json.empty() || json.size() > kMostRequests) {
    line.requests.push_back(wrongRequest(
        kNoRequest,
        fmt::format("a batch of {} requests: send 1 to {}", json.size(), kMostRequests)));
    return line;
  }
  line.batch = true;
  line.requests.reserve(json.size());
  for (Json& one : json) {
    line.requests.push_back(read(one));
  }
  return line;
}

void appendResultStart(std::string& out, std::string_view id) {
  out += R"({"jsonrpc":"2.0","id":)";
  out += id;
  out += R"(,"result":)";
}

void appendError(std::string& out, std::string_view id, int code, std::string_view message,
                 std::string_view path) {
  out += fmt::format(R"({{"jsonrpc":"2.0","id":{},"error":{{"code":{},"message":)", id, code);
  appendString(out, message);
  if (!path.empty()) {
    out += R"(,"data":{"path":)";
    appendString(out, path);
    out += '}';
  }
  out += "}}";
}

}  // namespace Common::JsonRpc
