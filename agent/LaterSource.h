#pragma once

#include <memory>
#include <string_view>

#include "agent/Source.h"

namespace Agent {

// A source that an outcome may come for much later, and that must not be kept alive for it if it is
// a peer: it may have gone by then, and there may be any number of those.
class LaterSource {
 public:
  LaterSource() = default;
  explicit LaterSource(const std::shared_ptr<Source>& source) {
    if (source->isKept()) {
      peer_ = source;
    } else {
      file_ = source;
    }
  }

  // The source; in the place of a peer that has gone, one that hears nothing.
  [[nodiscard]] std::shared_ptr<Source> get() const {
    if (file_) {
      return file_;
    }
    static const std::shared_ptr<Source> gone = std::make_shared<Gone>();
    const auto peer = peer_.lock();
    return peer ? peer : gone;
  }

 private:
  class Gone final : public Source {
   public:
    Gone() : Source("socket") {}
    [[nodiscard]] bool isKept() const noexcept override { return true; }
    void outcomeIs(std::string_view) override {}
  };

  std::shared_ptr<Source> file_;
  std::weak_ptr<Source> peer_;
};

}  // namespace Agent
