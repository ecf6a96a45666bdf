#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "kelp/LiveCommands.h"
#include "kelp/PlainJson.h"
#include "kelp/TextTable.h"

namespace Kelp {
namespace {

constexpr std::uint64_t kUsualMembers = 100;
constexpr std::uint64_t kKeysOffered = 50;

// "attribute", and how it is more than that.
std::string kindText(const Json& attribute) {
  std::string text = attribute.value("kind", "");
  const auto has = [&](const char* flag) {
    const auto flags = attribute.find("flags");
    return flags != attribute.end() &&
           std::find(flags->begin(), flags->end(), flag) != flags->end();
  };
  text += has("writable") ? ", writable" : "";
  text += has("mutating") ? ", changes state" : "";
  return text;
}

std::string typeText(const Json& attribute) {
  std::string text = attribute.value("type", "");
  if (attribute.contains("keyType")) {
    text += " by " + attribute.value("keyType", "");
  }
  // The writer of an attribute takes what it holds: nothing new.
  if (attribute.value("kind", "") == "operation" && attribute.contains("arguments")) {
    std::string arguments;
    for (const Json& one : attribute["arguments"]) {
      arguments += (arguments.empty() ? "" : ", ") + plainText(one);
    }
    text += fmt::format(" ({})", arguments);
  }
  return text;
}

void showRoots(Live& live, const Json& roots) {
  TextTable table({"path", "class"});
  for (const Json& root : roots) {
    table.row({plainText(root["path"]), plainText(root["class"])});
  }
  table.print(live.out());
}

void showAttributes(Live& live, const Json& place) {
  live.out().line(fmt::format("{} ({})", plainText(place["path"]), plainText(place["class"])));
  TextTable table({"name", "kind", "type", "inherited from"});
  for (const Json& attribute : place["attributes"]) {
    const Json declaredBy = attribute.value("declaredBy", Json(""));
    table.row({plainText(attribute["name"]), kindText(attribute), typeText(attribute),
               declaredBy == place["class"] ? "" : plainText(declaredBy)});
  }
  table.print(live.out());
}

// The paths of the first members of a collection.
void showMembers(Live& live, const Json& place) {
  const std::string path = plainText(place["path"]);
  const std::uint64_t limit = live.options().limit.value_or(kUsualMembers);
  std::uint64_t shown = 0;
  if (limit != 0) {
    const Json page = live.agent().call("iterate", {{"path", path}, {"limit", limit}});
    for (const Json& member : page["members"]) {
      live.out().line(fmt::format("{}[{}]", path, keyText(member[0])));
      ++shown;
    }
  }
  const std::uint64_t count = place.value("count", shown);
  if (count > shown) {
    live.out().line(fmt::format("{} of {} members; --limit N shows more", shown, count));
  }
}

}  // namespace

void listPlace(Live& live) {
  if (live.options().path.empty()) {
    const Json roots = live.agent().call("objects");
    live.json() ? live.printJson(roots) : showRoots(live, roots);
    return;
  }
  const Json place = live.agent().call("list", {{"path", live.options().path}});
  if (live.json()) {
    live.printJson(place);
  } else if (place.contains("attributes")) {
    showAttributes(live, place);
  } else if (!place.contains("attribute")) {
    live.out().line(plainText(place["value"]));
  } else if (place["attribute"].value("kind", "") == "collection") {
    showMembers(live, place);
  } else {
    live.out().line(fmt::format("{}: {} {}", plainText(place["path"]), kindText(place["attribute"]),
                                typeText(place["attribute"])));
  }
}

// The path so far ends in the middle of a name or a key: what comes before it is a place.
void completePath(Live& live) {
  const std::string& path = live.options().path;
  const auto offer = [&](const std::string& whole) {
    if (whole.starts_with(path)) {
      live.out().line(whole);
    }
  };
  const std::size_t bracket = path.rfind('[');
  const std::size_t slash = path.rfind('/');
  if (bracket != std::string::npos && path.find(']', bracket) == std::string::npos) {
    const std::string collection = path.substr(0, bracket);
    const Json page = live.agent().call("iterate", {{"path", collection}, {"limit", kKeysOffered}});
    for (const Json& member : page["members"]) {
      offer(fmt::format("{}[{}]", collection, keyText(member[0])));
    }
    return;
  }
  if (path.ends_with(']')) {
    offer(path + "/");
    return;
  }
  if (slash == std::string::npos) {
    for (const Json& root : live.agent().call("objects")) {
      offer(plainText(root["path"]) + "/");
    }
    return;
  }
  const std::string object = path.substr(0, slash);
  const Json place = live.agent().call("list", {{"path", object}});
  if (!place.contains("attributes")) {
    return;
  }
  for (const Json& attribute : place["attributes"]) {
    const bool members = attribute.value("kind", "") == "collection";
    offer(object + "/" + plainText(attribute["name"]) + (members ? "[" : ""));
  }
}

}  // namespace Kelp
