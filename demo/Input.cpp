#include "demo/Input.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "common/Json.h"
#include "common/RecordJson.h"
#include "common/ResourceEvent.h"

namespace Demo {

namespace {

constexpr std::uint32_t kAsked = 300;  // there are 255 profiles
constexpr std::uint32_t kRemoved = 100;
constexpr std::size_t kLifeWithProfiles = 4000;
constexpr std::string_view kReplayComplete = "{\"op\":\"replayComplete\"}\n";

// An event of a resource changes no entry but in what resources resolve to, and is no intent.
bool isEvent(const std::string& line) {
  try {
    return Common::isResourceEvent(line);
  } catch (const Common::InputError&) {
    return false;
  }
}

void writeFile(const std::string& file, std::string_view text) {
  std::ofstream out(file, std::ios::binary);
  out << text;
  out.close();
  if (!out) {
    throw std::runtime_error(file + ": cannot be written; make room on its file system");
  }
}

void add(Input& input, std::string& text, std::vector<Common::Intent> intents) {
  const std::uint64_t before = &text == &input.following ? input.fileBytes : 0;
  for (Common::Intent& intent : intents) {
    Common::appendIntent(text, intent);
    text += '\n';
    input.ends.push_back(before + text.size());
    input.lines.emplace_back(std::move(intent));
  }
}

void addProfiles(Input& input) {
  ProfileSteps& steps = input.profiles.emplace();
  std::string& text = input.following;
  steps.change = input.lines.size();
  steps.bytesOfLife = text.size();
  text += R"({"op":"resource","resource":"vlanEditProfile","key":)";
  Common::appendJson(text, commonVlanEdit());
  text += ",\"event\":\"change\"}\n";
  input.lines.emplace_back();
  steps.asked = input.lines.size();
  steps.bytesOfChange = text.size();
  add(input, text, ownVlanEdits(Common::IntentOp::write, kAsked));
  steps.removed = input.lines.size();
  steps.bytesOfAsked = text.size();
  add(input, text, ownVlanEdits(Common::IntentOp::remove, kRemoved));
}

}  // namespace

std::optional<std::size_t> Input::lineOf(std::string_view source, std::uint64_t number) const {
  const std::size_t from = source == file ? 0 : inFile;
  const std::size_t to = source == file ? inFile : lines.size();
  if (number == 0 || number > to - from) {
    return std::nullopt;
  }
  return from + number - 1;
}

Input generateInput(const Plan& plan, const std::string& file, bool halves) {
  Input input;
  input.file = file;
  input.units = plan.units;
  const bool withProfiles = halves && plan.intents >= kLifeWithProfiles;
  Plan life = plan;
  life.intents -= withProfiles ? kAsked + kRemoved : 0;
  std::vector<Common::Intent> intents = metroEdge(life);
  input.inFile = halves ? intents.size() / 2 : intents.size();
  std::vector<Common::Intent> others(
      std::make_move_iterator(intents.begin() + static_cast<std::ptrdiff_t>(input.inFile)),
      std::make_move_iterator(intents.end()));
  intents.resize(input.inFile);
  std::string text;
  add(input, text, std::move(intents));
  if (halves) {
    input.fileBytes = text.size() + kReplayComplete.size();
    add(input, input.following, std::move(others));
    if (withProfiles) {
      addProfiles(input);
    }
    input.allFile = file + ".all";
    writeFile(input.allFile, text + input.following);
    text += kReplayComplete;
  }
  input.fileBytes = text.size();
  writeFile(file, text);
  return input;
}

Input readInput(const std::string& file) {
  Input input;
  input.file = file;
  std::ifstream in(file, std::ios::binary);
  if (!in || std::filesystem::is_directory(file)) {
    throw std::runtime_error(file + ": cannot be read; name a file of intents, one on a line");
  }
  for (std::string line; std::getline(in, line);) {
    input.fileBytes += line.size() + 1;
    input.lines.emplace_back();
    if (Common::isBlankOrComment(line) || isEvent(line)) {
      continue;
    }
    input.ends.push_back(input.fileBytes);
    try {
      Common::Intent intent = Common::parseIntent(line);
      // The agent refuses lines of units that it cannot have.
      if (intent.unit.value < Common::kMostUnits) {
        input.units = std::max<unsigned>(input.units, intent.unit.value + 1U);
      }
      input.lines.back() = std::move(intent);
    } catch (const Common::InputError&) {
      // The agent says what is wrong with it.
    }
  }
  input.inFile = input.lines.size();
  return input;
}

}  // namespace Demo
