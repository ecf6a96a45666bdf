#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include "common/Json.h"

namespace Agent {

// Where intents come from, and where their outcomes go. Intents in flight keep their source.
class Source {
 public:
  // `name` is what messages and outcomes call it: a file's name, or "socket:3".
  explicit Source(std::string name) : name_(std::move(name)) {
    Common::appendString(quotedName_, name_);
  }
  virtual ~Source() = default;
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

  [[nodiscard]] const std::string& name() const noexcept { return name_; }
  // The name as JSON.
  [[nodiscard]] const std::string& quotedName() const noexcept { return quotedName_; }

  // Whether what it asks for is kept for the next start, because nobody can read it again then.
  [[nodiscard]] virtual bool isKept() const noexcept { return false; }

  // An outcome of one of its intents is known: a line of JSON with its end.
  virtual void outcomeIs(std::string_view line) = 0;

  // Its intents that have no outcome yet.
  [[nodiscard]] std::size_t inFlight() const noexcept { return inFlight_; }
  void inFlightInc() noexcept { ++inFlight_; }
  void inFlightDec() noexcept { --inFlight_; }

 private:
  std::string name_;
  std::string quotedName_;
  std::size_t inFlight_ = 0;
};

}  // namespace Agent
