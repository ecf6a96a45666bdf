#include "demo/Input.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "common/Json.h"

namespace Demo {

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
  std::vector<Common::Intent> intents = metroEdge(plan);
  input.inFile = halves ? intents.size() / 2 : intents.size();
  std::string text;
  std::uint64_t bytes = 0;
  for (Common::Intent& intent : intents) {
    if (halves && input.lines.size() == input.inFile) {
      text += "{\"op\":\"replayComplete\"}\n";
      bytes += text.size();
      input.following = std::exchange(text, std::string());
    }
    Common::appendIntent(text, intent);
    text += '\n';
    input.ends.push_back(bytes + text.size());
    input.lines.emplace_back(std::move(intent));
  }
  if (halves) {
    text.swap(input.following);
  }
  input.fileBytes = text.size();
  std::ofstream out(file, std::ios::binary);
  out << text;
  out.close();
  if (!out) {
    throw std::runtime_error(file + ": cannot be written; make room on its file system");
  }
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
    if (Common::isBlankOrComment(line)) {
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
