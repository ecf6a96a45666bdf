#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <utility>

#include "Feature.h"
#include "Resources.h"

// Clients of the agent's inspection socket.

namespace AgentTest {

// Notifications that come between responses are kept aside.
class Inspector {
 public:
  explicit Inspector(const std::string& path) : feature_(path) {}

  Feature& feature() { return feature_; }
  [[nodiscard]] static std::string request(const std::string& id, const std::string& method,
                                           const Json& params = nullptr) {
    std::string text = R"({"jsonrpc":"2.0","id":)" + id + R"(,"method":")" + method + '"';
    return text + (params.is_null() ? "" : ",\"params\":" + params.dump()) + "}\n";
  }
  // The whole response.
  Json ask(const std::string& method, const Json& params = nullptr) {
    const std::string id = std::to_string(++asked_);
    EXPECT_TRUE(feature_.send(request(id, method, params)));
    Json response = answer();
    EXPECT_EQ(response.value("id", Json()).dump(), id) << response;
    return response;
  }
  // The next line that is no notification; null at the end of the stream.
  Json answer() {
    while (true) {
      Json one = line();
      if (!one.is_object() || !one.contains("method")) {
        return one;
      }
      changes_.push_back(std::move(one));
    }
  }
  Json result(const std::string& method, const Json& params = nullptr) {
    const Json response = ask(method, params);
    EXPECT_TRUE(response.contains("result")) << method << ' ' << params << ": " << response;
    return response.value("result", Json());
  }
  // The code of the error; 0 if there is none.
  int code(const std::string& method, const Json& params = nullptr) {
    return codeOf(ask(method, params));
  }
  static int codeOf(const Json& response) {
    return response.contains("error") ? response["error"]["code"].get<int>() : 0;
  }
  std::string message(const std::string& method, const Json& params = nullptr) {
    const Json response = ask(method, params);
    return response.contains("error") ? response["error"]["message"].get<std::string>() : "";
  }
  Json read(const std::string& path) { return result("read", {{"path", path}}); }
  std::uint64_t count(const std::string& path) { return result("count", {{"path", path}}); }
  // The next notification; null at the end of the stream.
  Json notice() {
    if (changes_.empty()) {
      Json one = line();
      return one.contains("method") ? one : Json();
    }
    Json one = std::move(changes_.front());
    changes_.pop_front();
    return one;
  }
  // The params of the next notification, which is that of a change.
  Json change() {
    const Json one = notice();
    EXPECT_EQ(one.is_object() ? one.value("method", "") : "", "changed") << one;
    return one.is_object() ? one.value("params", Json()) : Json();
  }
  // Those that have come so far.
  [[nodiscard]] const std::deque<Json>& changes() const { return changes_; }
  // The next line; null at the end of the stream.
  Json line() {
    std::size_t end = 0;
    while ((end = feature_.seen().find('\n', at_)) == std::string::npos) {
      if (!feature_.receivesMore()) {
        return Json::object();
      }
    }
    const std::size_t begin = std::exchange(at_, end + 1);
    return Json::parse(feature_.seen().substr(begin, end - begin));
  }

 private:
  Feature feature_;
  std::size_t at_ = 0;
  unsigned asked_ = 0;
  std::deque<Json> changes_;
};

// Agents that listen for intents and for inspection.
class WithInspection : public WithStore {
 protected:
  static constexpr std::string_view kWritten = R"("op":"write","table":"EsemFodo",)";

  [[nodiscard]] std::string socketPath() const { return path("agent.sock"); }
  [[nodiscard]] std::string inspectPath() const { return path("inspect.sock"); }
  Program inspectedAgent(std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.end(), {"--socket", socketPath(), "--inspect", inspectPath()});
    return agent(std::move(arguments));
  }
  static std::string interfaceOf(const std::string& table) {
    return "KelpEmServer::" + table + "KelpInterface";
  }
  static std::string tableOf(const std::string& table) {
    return interfaceOf(table) + "/swTableSet[0]";
  }
  // Entries of EsemFodo, from 1 on, and waits for their outcomes.
  static void writeEntries(Feature& feature, unsigned count) {
    const auto written = [&] {
      std::size_t found = 0;
      for (std::size_t at = 0; (at = feature.seen().find(kWritten, at)) != std::string::npos;
           at += kWritten.size()) {
        ++found;
      }
      return found;
    };
    const std::size_t before = written();
    for (unsigned fodo = 1; fodo <= count; ++fodo) {
      EXPECT_TRUE(feature.send(writeFodo(fodo, fodo % 60000)));
      // Some outcomes at a time: an agent whose outcomes nobody takes reads no intents.
      while ((fodo == count || fodo % 1000 == 0) && written() < before + fodo) {
        ASSERT_TRUE(feature.receivesMore());
      }
    }
  }
  // An entry of EsemFodoVd that waits for its VLAN edit profile, and its place.
  static std::string keepWaiting(Feature& feature, Inspector& inspector, unsigned fodo) {
    EXPECT_TRUE(feature.send(vlanEvent(100, "prepare") + writeVd(fodo, withVlan(100))));
    const std::string waiting = tableOf("EsemFodoVd") + "/transientAddEntry";
    const Json key = {{"fodo", fodo}, {"vlanDomain", 1}, {"port", 1}};
    EXPECT_TRUE(comesTrue([&] {
      return inspector.result("has", {{"path", waiting}, {"key", key}}) == true;
    }));
    return waiting + "[fodo=" + std::to_string(fodo) + ",vlanDomain=1,port=1]";
  }
};

}  // namespace AgentTest
