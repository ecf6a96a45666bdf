#pragma once

#include <cstdint>
#include <string>

namespace Demo {

// A folder of its own for one run, in memory where there is room for `bytes`, else among the
// temporary files. Gone with the object unless kept.
class Folder {
 public:
  // Throws std::runtime_error.
  explicit Folder(std::uint64_t bytes);
  ~Folder();
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  [[nodiscard]] const std::string& path() const noexcept { return path_; }
  [[nodiscard]] std::string file(const char* name) const { return path_ + "/" + name; }
  void keep() noexcept { kept_ = true; }

 private:
  std::string path_;
  bool kept_ = false;
};

}  // namespace Demo
