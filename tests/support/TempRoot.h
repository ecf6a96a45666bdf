#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace TestSupport {

// A folder of its own for the stores of one test, in memory; gone with the object.
class TempRoot {
 public:
  TempRoot() {
    std::string pattern =
        std::filesystem::exists("/dev/shm") ? "/dev/shm/kelp-test-XXXXXX" : "/tmp/kelp-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
      throw std::runtime_error("cannot make " + pattern);
    }
    path_ = pattern;
  }
  ~TempRoot() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempRoot(const TempRoot&) = delete;
  TempRoot& operator=(const TempRoot&) = delete;

  [[nodiscard]] const std::string& path() const noexcept { return path_; }

 private:
  std::string path_;
};

}  // namespace TestSupport
