#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

// A folder of the test's own, gone with everything in it when the test ends.
class TempFolder {
 public:
  TempFolder() {
    path_ = (std::filesystem::temp_directory_path() / "kelp-services-XXXXXX").string();
    if (mkdtemp(path_.data()) == nullptr) {
      throw std::runtime_error("cannot make the folder " + path_);
    }
  }
  ~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_;
};
