#pragma once

#include "Lumen/String.h"

namespace Quilt {

// The register of one collection: a small file beside the collection's own, which says whether the
// collection has existed and who writes it. The writer locks it for its life; the lock goes with
// the process however it ends. The file is never replaced, so the lock is on the same file for
// everybody, whatever happens to the collection's file.
//
// Text of the file: "pid NNNNNNNNNN\n" and, once the collection has been made, "made\n".
class Register {
 public:
  // Makes the file if it is absent, takes the lock and enters the process id. `path` names the
  // collection in the errors. Throws StoreError if another process has the lock, and nothing has
  // changed then.
  Register(Lumen::String fileName, const Lumen::String& path);
  ~Register();
  Register(const Register&) = delete;
  Register& operator=(const Register&) = delete;

  // The collection has been made at some time.
  [[nodiscard]] bool made() const noexcept { return made_; }
  void madeIs();

 private:
  Lumen::String fileName_;
  int fd_ = -1;
  bool made_ = false;
};

}  // namespace Quilt
