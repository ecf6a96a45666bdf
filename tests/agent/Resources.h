#pragma once

#include <string>
#include <utility>
#include <vector>

#include "Feature.h"
#include "Programs.h"

// Intents that name resources, events of these, and agents with a chip that take both.

namespace AgentTest {

inline std::string vlanEdit(unsigned vlan) {
  return R"({"untagged":{"outerAction":"push","outerVlan":)" + std::to_string(vlan) + "}}";
}
// An entry of EsemFodoVd with these resources, which may be empty.
inline std::string writeVd(unsigned fodo, const std::string& resources, unsigned unit = 0,
                           const std::string& rest = "") {
  return R"({"op":"write","table":"EsemFodoVd","unit":)" + std::to_string(unit) +
         R"(,"key":{"fodo":)" + std::to_string(fodo) +
         R"(,"vlanDomain":1,"port":1},"resources":{)" + resources + R"(},"payload":{"outLif":)" +
         std::to_string(fodo) + "}" + rest + "}\n";
}
inline std::string withVlan(unsigned vlan) { return "\"vlanEditProfileKey\":" + vlanEdit(vlan); }
inline std::string withRemark(const std::string& interface) {
  return "\"remarkProfileKey\":\"" + interface + "\"";
}
inline std::string removeVd(unsigned fodo) {
  return R"({"op":"remove","table":"EsemFodoVd","unit":0,"key":{"fodo":)" + std::to_string(fodo) +
         R"(,"vlanDomain":1,"port":1}})" + "\n";
}
inline std::string writeIsem(unsigned vlan, unsigned circuit, const std::string& rest = "") {
  return R"({"op":"write","table":"Isem1Tag","unit":0,"key":{"port":1,"vlan":)" +
         std::to_string(vlan) + R"(},"resources":{"attachmentCircuit":)" + std::to_string(circuit) +
         "}" + rest + "}\n";
}
inline std::string eventOf(const std::string& resource, const std::string& key,
                           const std::string& event) {
  return R"({"op":"resource","resource":")" + resource + R"(","key":)" + key + R"(,"event":")" +
         event + "\"}\n";
}
inline std::string vlanEvent(unsigned vlan, const std::string& event) {
  return eventOf("vlanEditProfile", vlanEdit(vlan), event);
}
inline std::string remarkEvent(const std::string& interface, const std::string& event) {
  return eventOf("remarkProfile", "\"" + interface + "\"", event);
}
inline std::string circuitEvent(unsigned circuit, const std::string& event) {
  return eventOf("inLifIndex", R"({"attachmentCircuit":)" + std::to_string(circuit) + "}", event);
}

class WithResources : public WithStore {
 protected:
  [[nodiscard]] std::string socketPath() const { return path("agent.sock"); }
  Program listeningAgent(std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.end(), {"--socket", socketPath(), "--summary", path("s")});
    return agent(std::move(arguments));
  }
  Program programmedChip() {
    return chip({"--summary", path("chip.json"), "--model", path("model.jsonl")});
  }
  // What the chip holds of a table, each entry with its unit.
  [[nodiscard]] std::vector<Json> onChip(const Program& hardware, const std::string& table) const {
    unlink(path("chip.json").c_str());
    unlink(path("model.jsonl").c_str());
    hardware.kill(SIGUSR1);
    EXPECT_TRUE(comesTrue([&] { return access(path("model.jsonl").c_str(), F_OK) == 0; }));
    EXPECT_TRUE(Json::parse(contentOf(path("chip.json")))["check"]["same"].get<bool>());
    std::vector<Json> entries;
    std::istringstream lines(contentOf(path("model.jsonl")));
    for (std::string line; std::getline(lines, line);) {
      Json one = Json::parse(line);
      if (one["table"] == table) {
        one["entry"]["unit"] = one["unit"];
        entries.push_back(one["entry"]);
      }
    }
    return entries;
  }
  // Sends, and waits for an outcome of the last line that is sent.
  static void sendAndWait(Feature& feature, const std::string& text, unsigned lastLine) {
    ASSERT_TRUE(feature.send(text));
    ASSERT_TRUE(feature.receives("\"line\":" + std::to_string(lastLine) + ","));
  }
  // The outcomes of a line that have come so far, in their order.
  [[nodiscard]] static std::vector<Json> all(const Feature& feature, unsigned line) {
    std::vector<Json> of;
    const std::string seen = feature.seen();
    for (const Json& one : outcomes(seen.substr(0, seen.rfind('\n') + 1))) {
      if (one["line"] == line) {
        of.push_back(one);
      }
    }
    return of;
  }
  [[nodiscard]] Json intentsOf(const Program& agent) const {
    return summaryOf(agent, "s")["intents"];
  }
};

}  // namespace AgentTest
