#include "Quilt/FileError.h"

#include <fmt/format.h>

#include <cerrno>
#include <system_error>

namespace Quilt {
namespace {

const char* remedyOf(int errorNumber) {
  switch (errorNumber) {
    case ENOENT:
      return "start the process that writes it, or check the path and the root folder";
    case EACCES:
    case EPERM:
    case EROFS:
      return "run as the owner of the folder or as a member of its group, or name another root "
             "folder";
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return "make room in the file system, or name another root folder";
    case ENAMETOOLONG:
      return "shorten the path";
    case EMFILE:
    case ENFILE:
      return "raise the limit of open files";
    case ENOMEM:
      return "free memory, or raise the limit of address space or of mappings";
    case ENOTDIR:
    case EISDIR:
      return "remove the file or folder that stands in the way";
    default:
      return "check the file and its folder";
  }
}

}  // namespace

BrioSharedMem::StoreError fileError(const Lumen::String& path, const char* what,
                                    const Lumen::String& fileName, int errorNumber) {
  return BrioSharedMem::StoreError(fmt::format("{}: cannot {} {}: {}; {}", path, what, fileName,
                                               std::generic_category().message(errorNumber),
                                               remedyOf(errorNumber)));
}

}  // namespace Quilt
