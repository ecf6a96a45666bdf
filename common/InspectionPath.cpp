#include "common/InspectionPath.h"

#include "BrioSharedMem/EntityPath.h"

namespace Common {

std::string inspectionPath(const std::string& root, const std::string& name) {
  return root + "/" + BrioSharedMem::encodedPath(name) + "/inspect.sock";
}

}  // namespace Common
