#pragma once

#include <exception>
#include <utility>

#include "Lumen/String.h"

namespace Lumen {

// Base of what the runtime throws. The text says what was wrong and where.
class Exception : public std::exception {
 public:
  explicit Exception(String text) : text_(std::move(text)) {}
  ~Exception() override;

  [[nodiscard]] const String& msg() const noexcept { return text_; }
  [[nodiscard]] const char* what() const noexcept override { return text_.c_str(); }

 private:
  String text_;
};

// A read of shared memory met bytes that do not add up: a checksum, a link out of range, a chain
// that is longer than its collection. Whoever reads catches it around that one call, hands msg() to
// Quilt::QuiltMapBase::doCorruptionDetected and goes on with the default record.
class CorruptionDetectedException : public Exception {
 public:
  using Exception::Exception;
  ~CorruptionDetectedException() override;
};

}  // namespace Lumen
