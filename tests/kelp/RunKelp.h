#pragma once

// The program that is tested, as the build names it.
#ifndef KELP
#define KELP "kelp"
#endif

#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tests/agent/Programs.h"

namespace KelpTest {

using AgentTest::Json;

// What one run of kelp has left.
struct Result {
  int status;
  std::string out;
  std::string err;

  [[nodiscard]] Json json() const { return Json::parse(out); }
  [[nodiscard]] std::vector<Json> jsonLines() const { return AgentTest::outcomes(out); }
  [[nodiscard]] std::vector<std::string> lines() const {
    std::vector<std::string> all;
    std::istringstream text(out);
    for (std::string line; std::getline(text, line);) {
      all.push_back(line);
    }
    return all;
  }
};

// Runs kelp on a store to its end.
inline Result runKelp(const std::string& root, const std::string& name,
                      std::vector<std::string> arguments) {
  arguments.insert(arguments.end(), {"--root", root, "--name", name});
  AgentTest::Program program(KELP, std::move(arguments), root + "/run");
  const int status = program.ends();
  return {status, program.out(), program.err()};
}

// Every file below a folder: its bytes, when it was changed, and the space that it takes.
inline std::map<std::string, std::string> imageOf(const std::string& folder) {
  std::map<std::string, std::string> image;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    struct stat status {};
    ::stat(entry.path().c_str(), &status);
    std::string& text = image[entry.path().string()];
    text = std::to_string(status.st_ino) + "/" + std::to_string(status.st_mtim.tv_sec) + "." +
           std::to_string(status.st_mtim.tv_nsec) + "/" + std::to_string(status.st_blocks) + "/";
    // The bytes of sparse files are long; their first mebibyte has all that these tests store.
    if (entry.is_regular_file()) {
      std::ifstream file(entry.path(), std::ios::binary);
      std::string bytes(1 << 20, '\0');
      file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
      text += std::to_string(std::hash<std::string>()(bytes));
    }
  }
  return image;
}

}  // namespace KelpTest
