#include "kelp/Get.h"

#include <fmt/format.h>

#include <algorithm>
#include <vector>

#include "kelp/LiveCommands.h"
#include "kelp/PlainJson.h"
#include "kelp/TextTable.h"

namespace Kelp {
namespace {

constexpr std::uint64_t kUsualMembers = 1000;
constexpr std::uint64_t kPage = 1000;
constexpr std::size_t kBatch = 64;

// The values of the attributes of an object, by name, and the numbers of members of its
// collections; null where one can't be read.
Json valuesOf(Live& live, const Json& place) {
  const std::string path = place["path"];
  Json values = Json::object();
  const auto ask = [&](const char* method, const std::vector<std::string>& names) {
    for (std::size_t at = 0; at < names.size(); at += kBatch) {
      std::vector<Json> params;
      for (std::size_t i = at; i < std::min(at + kBatch, names.size()); ++i) {
        params.push_back({{"path", path + "/" + names[i]}});
      }
      const std::vector<Json> answers = live.agent().callEach(method, params);
      for (std::size_t i = 0; i < answers.size(); ++i) {
        values[names[at + i]] = answers[i];
      }
    }
  };
  std::vector<std::string> readable;
  std::vector<std::string> collections;
  for (const Json& attribute : place["attributes"]) {
    const std::string kind = attribute.value("kind", "");
    if (kind == "attribute") {
      readable.push_back(attribute["name"]);
    } else if (kind == "collection") {
      collections.push_back(attribute["name"]);
    }
  }
  ask("read", readable);
  ask("count", collections);
  // In declared order.
  Json ordered = Json::object();
  for (const Json& attribute : place["attributes"]) {
    const std::string name = attribute["name"];
    if (!values.contains(name)) {
      continue;
    }
    ordered[name] = attribute.value("kind", "") == "collection" ? Json{{"count", values[name]}}
                                                                : std::move(values[name]);
  }
  return ordered;
}

void showObject(Live& live, const Json& place) {
  const Json values = valuesOf(live, place);
  if (live.json()) {
    live.printJson({{"path", place["path"]}, {"class", place["class"]}, {"attributes", values}});
    return;
  }
  live.out().line(fmt::format("{} ({})", plainText(place["path"]), plainText(place["class"])));
  TextTable table({"name", "value"});
  for (const auto& [name, value] : values.items()) {
    const bool members = value.is_object() && value.size() == 1 && value.contains("count");
    table.row({name, members ? fmt::format("[{} members]", plainText(value["count"]))
                             : plainText(value)});
  }
  table.print(live.out());
}

void showCollection(Live& live, const Json& place) {
  const std::string path = place["path"];
  const std::uint64_t limit = live.options().limit.value_or(kUsualMembers);
  std::uint64_t shown = 0;
  bool more = limit != 0;
  Json cursor = nullptr;
  if (live.json()) {
    live.out().text() += Json{{"path", path}, {"count", place["count"]}}.dump();
    live.out().text().pop_back();
    live.out().text() += R"(,"members":[)";
  }
  while (more) {
    Json params = {{"limit", std::min(kPage, limit - shown)}};
    cursor.is_null() ? params["path"] = path : params["cursor"] = cursor;
    const Json page = live.agent().call("iterate", params);
    for (const Json& member : page["members"]) {
      if (live.json()) {
        live.out().text() += shown == 0 ? "" : ",";
        live.out().text() += member.dump(-1, ' ', false, Json::error_handler_t::replace);
      } else {
        live.out().line(fmt::format("[{}]{}", keyText(member[0]),
                                    member.size() > 1 ? "  " + plainText(member[1]) : ""));
      }
      ++shown;
    }
    cursor = page["cursor"];
    more = !cursor.is_null() && shown < limit;
  }
  const bool whole = cursor.is_null() && limit != 0;
  if (live.json()) {
    live.out().line(fmt::format("],\"whole\":{}}}", whole));
  } else if (!whole) {
    live.out().line(
        fmt::format("{} of {} members; --limit N shows more", shown, plainText(place["count"])));
  }
}

}  // namespace

void showPlace(Live& live, const std::string& path) {
  const Json place = live.agent().call("list", {{"path", path}});
  if (place.contains("attributes")) {
    const Json& attributes = place["attributes"];
    const std::string only =
        attributes.size() == 1 && attributes[0].value("kind", "") == "collection"
            ? attributes[0].value("name", "")
            : "";
    only.empty() ? showObject(live, place) : showPlace(live, path + "/" + only);
  } else if (!place.contains("attribute")) {
    live.json() ? live.printJson(place["value"]) : live.out().line(plainText(place["value"]));
  } else if (place["attribute"].value("kind", "") == "collection") {
    showCollection(live, place);
  } else {
    throw CommandError(kUsage,
                       fmt::format("{}: an operation that needs a call: kelp call {}", path, path));
  }
}

void getValue(Live& live) { showPlace(live, live.options().path); }

}  // namespace Kelp
