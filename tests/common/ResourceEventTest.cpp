#include "common/ResourceEvent.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using Common::ResourceEvent;
using Common::ResourceEventKind;
using testing::StartsWith;

std::string errorOf(const std::string& line) {
  try {
    (void)Common::parseResourceEvent(line);
    return "";
  } catch (const Common::InputError& error) {
    return error.what();
  }
}

std::string textOf(const Common::AnyResourceKey& key) {
  std::string text;
  Common::appendKey(text, key);
  return text;
}

// An event with `rest` behind the operation.
std::string event(const std::string& rest) { return R"({"op":"resource",)" + rest + "}"; }

TEST(ResourceEvent, IsToldFromOtherLines) {
  EXPECT_TRUE(Common::isResourceEvent(R"({"op":"resource"})"));
  EXPECT_TRUE(Common::isResourceEvent(R"({"key":5,"op":"resou\u0072ce"})"));
  EXPECT_FALSE(Common::isResourceEvent(R"({"op":"write","resource":"resource"})"));
  EXPECT_FALSE(Common::isResourceEvent(R"({"resource":"resource"})"));
  EXPECT_FALSE(Common::isResourceEvent(R"({"op":"write","resources":{}})"));
}

TEST(ResourceEvent, NamesAResourceOfEachKind) {
  const ResourceEvent circuit = Common::parseResourceEvent(event(
      R"("resource":"inLifIndex","key":{"attachmentCircuit":7,"outerVlan":9},"event":"change")"));
  EXPECT_EQ(circuit.resource(), "inLifIndex");
  EXPECT_EQ(circuit.kind, ResourceEventKind::change);
  const auto& inLif = std::get<KelpInLif::InLifKey>(circuit.key);
  EXPECT_EQ(inLif.attachmentCircuit, 7U);
  EXPECT_EQ(inLif.outerVlan, 9U);
  EXPECT_EQ(inLif.etherType, 0x0800) << "what is left out has its default, as in an entry";

  const ResourceEvent edit = Common::parseResourceEvent(
      event(R"("resource":"vlanEditProfile","key":{"llcTpid3":{"flags":9}},"event":"ready")"));
  EXPECT_EQ(edit.resource(), "vlanEditProfile");
  EXPECT_EQ(
      std::get<KelpTunnelNiLib::VlanEditResourceKey>(edit.key)[KelpTunnelNiLib::TagFormat::llcTpid3]
          .flags,
      9U);

  const ResourceEvent remark = Common::parseResourceEvent(
      event(R"("resource":"remarkProfile","key":"Lag5.7","event":"refuse")"));
  EXPECT_EQ(remark.resource(), "remarkProfile");
  EXPECT_EQ(std::get<KelpQos::EgressRemarkProfileEntryKey>(remark.key).intf.name(), "Lag5.7");

  // As they were read, so they are written.
  for (const ResourceEvent& one : {circuit, edit, remark}) {
    const ResourceEvent again =
        Common::parseResourceEvent(event(R"("resource":")" + std::string(one.resource()) +
                                         R"(","event":"allow","key":)" + textOf(one.key)));
    EXPECT_TRUE(again.key == one.key) << textOf(one.key);
  }
}

TEST(ResourceEvent, HasEveryEventByItsName) {
  using enum ResourceEventKind;
  const std::vector<std::pair<std::string, ResourceEventKind>> names = {
      {"change", change},   {"refuse", refuse},   {"allow", allow},
      {"prepare", prepare}, {"confirm", confirm}, {"ready", ready}};
  for (const auto& [text, kind] : names) {
    EXPECT_EQ(name(kind), text);
    EXPECT_EQ(Common::parseResourceEvent(
                  event(R"("resource":"remarkProfile","key":"Lag5","event":")" + text + "\""))
                  .kind,
              kind);
  }
}

TEST(ResourceEvent, SaysWhatIsWrongWithTheRemedy) {
  const std::string resources = R"(write "inLifIndex", "vlanEditProfile" or "remarkProfile")";
  const std::string events =
      R"(write "change", "refuse", "allow", "prepare", "confirm" or "ready")";
  EXPECT_EQ(errorOf(R"({"op":"resource"})"), "resource is missing: " + resources);
  EXPECT_EQ(errorOf(event(R"("resource":"inLif")")), "resource is \"inLif\": " + resources);
  EXPECT_EQ(errorOf(event(R"("resource":1)")), "resource is 1: " + resources);
  const std::string remark = R"("resource":"remarkProfile",)";
  EXPECT_EQ(errorOf(event(remark + R"("key":"Lag5")")), "event is missing: " + events);
  EXPECT_EQ(errorOf(event(remark + R"("key":"Lag5","event":"changed")")),
            "event is \"changed\": " + events);
  EXPECT_EQ(errorOf(event(remark + R"("event":"change")")),
            R"(key is missing: write an interface name such as "Ethernet3/1.100")");
  EXPECT_THAT(errorOf(event(remark + R"("event":"change","key":"Eth5")")), StartsWith("key: "));
  EXPECT_THAT(errorOf(event(remark + R"("event":"change","key":{"intf":"Lag5"})")),
              StartsWith("key is {\"intf\":\"Lag5\"}: write an interface name"));
  EXPECT_EQ(errorOf(event(R"("resource":"vlanEditProfile","event":"change")")),
            "key is missing: write an object such as "
            R"({"untagged":{"outerAction":"push","outerVlan":100}})");
  EXPECT_THAT(
      errorOf(event(R"("resource":"vlanEditProfile","event":"change","key":{"untaged":{}})")),
      StartsWith("key.untaged is unknown: write "));
  const std::string inLif = R"("resource":"inLifIndex","event":"change","key":)";
  EXPECT_EQ(errorOf(event(inLif + "5")), "key is 5: write an object, {...}");
  EXPECT_EQ(errorOf(event(inLif + R"({"outerVlan":4096})")),
            "key.outerVlan is 4096: write a whole number from 0 to 4095");
  EXPECT_THAT(errorOf(event(inLif + R"({"port":1})")), StartsWith("key.port is unknown: "));
}

// The default key is no resource: who used it would use them all.
TEST(ResourceEvent, TheKeyOfNoResourceIsRefused) {
  EXPECT_EQ(errorOf(event(R"("resource":"inLifIndex","event":"change","key":{"etherType":2048})")),
            "key is the key that names no resource: write an object such as "
            R"({"attachmentCircuit":7})");
  EXPECT_THAT(
      errorOf(event(R"("resource":"vlanEditProfile","event":"change","key":{"untagged":{}})")),
      StartsWith("key is the key that names no resource: "));
}

TEST(ResourceEvent, WhatBelongsToIntentsIsRefused) {
  for (const std::string member : {"table", "unit", "payload", "resources", "after", "evnt"}) {
    EXPECT_EQ(errorOf(event("\"" + member + R"(":0,"resource":"remarkProfile","key":"Lag5",)" +
                            R"("event":"change")")),
              "\"" + member +
                  "\" is no part of an event of a resource, which has op, resource, key and event: "
                  "leave it out");
  }
}

}  // namespace
