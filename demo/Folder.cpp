#include "demo/Folder.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace Demo {

Folder::Folder(std::uint64_t bytes) {
  namespace fs = std::filesystem;
  std::error_code absent;
  const fs::space_info memory = fs::space("/dev/shm", absent);
  const bool fits = !absent && memory.available > bytes;
  path_ =
      (fits ? std::string("/dev/shm") : fs::temp_directory_path().native()) + "/kelp-demo-XXXXXX";
  if (::mkdtemp(path_.data()) == nullptr) {
    throw std::runtime_error(
        fmt::format("cannot make {}: {}; set TMPDIR to a folder that this "
                    "user may write to",
                    path_, std::strerror(errno)));
  }
}

Folder::~Folder() {
  if (!kept_) {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
}

}  // namespace Demo
