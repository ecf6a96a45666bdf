#pragma once

#include <stdexcept>
#include <string>
#include <utility>

namespace Agent {

// What an inspection method answers with instead of a result; those of JSON-RPC stand in
// common/JsonRpc.h.
enum InspectionCode : int {
  kNotValid = 1,
  kNotFound = 2,
  kGone = 3,
  kFailed = 4,
  kNotAllowed = 5,
  kLimitReached = 6,
};

// The text begins with the place, if there is one, and says what to do.
class InspectionError : public std::runtime_error {
 public:
  InspectionError(int code, const std::string& text, std::string path = {})
      : std::runtime_error(text), code_(code), path_(std::move(path)) {}

  [[nodiscard]] int code() const noexcept { return code_; }
  // Empty: that of the request.
  [[nodiscard]] const std::string& path() const noexcept { return path_; }

 private:
  int code_;
  std::string path_;
};

}  // namespace Agent
