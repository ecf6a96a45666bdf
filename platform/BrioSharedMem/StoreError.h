#pragma once

#include <stdexcept>

namespace BrioSharedMem {

// A collection that cannot be opened: two writers, no room, no permission, no such file, another
// layout. The text names the path and the remedy. What was asked for has not been done, not even in
// part.
class StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A reader has found no file. Its writer may make it any time.
class AbsentError : public StoreError {
 public:
  using StoreError::StoreError;
};

// A reader has met a file of another layout than it was built for. Waiting does not help.
class OtherLayoutError : public StoreError {
 public:
  using StoreError::StoreError;
};

}  // namespace BrioSharedMem
