#pragma once

#include <cstdint>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "Lumen/Exception.h"
#include "Lumen/Node.h"
#include "Lumen/Ptr.h"
#include "Lumen/String.h"

namespace Brio {

// Something that was asked of an object can't be done. The text names the place and the remedy.
class InspectError : public Lumen::Exception {
 public:
  using Lumen::Exception::Exception;
  // What `missing`, a path, names is not there.
  InspectError(Lumen::String text, Lumen::String missing)
      : Exception(std::move(text)), missing_(std::move(missing)) {}
  ~InspectError() override;

  // The shortest beginning of the path that leads nowhere; empty if nothing is missing.
  [[nodiscard]] const Lumen::String& missing() const noexcept { return missing_; }

 private:
  Lumen::String missing_;
};

// A text that is no path, or no value.
class InspectSyntaxError final : public InspectError {
 public:
  using InspectError::InspectError;
  ~InspectSyntaxError() override;
};

// A value of any attribute, for who does not know its type. Integers are unsigned, as all are that
// objects have. A node is held: it lives as long as the value.
class InspectValue {
 public:
  using Field = std::pair<Lumen::String, InspectValue>;
  using Record = std::vector<Field>;
  using List = std::vector<InspectValue>;
  using NodePtr = Lumen::Ptr<Lumen::Node>;

  // Nothing: what an operation without a result gives.
  InspectValue() = default;
  InspectValue(bool value) : value_(value) {}
  InspectValue(std::uint64_t value) : value_(value) {}
  InspectValue(unsigned value) : value_(std::uint64_t{value}) {}
  InspectValue(double value) : value_(value) {}
  InspectValue(Lumen::String value) : value_(std::move(value)) {}
  InspectValue(std::string_view value) : value_(Lumen::String(value)) {}
  InspectValue(const char* value) : value_(Lumen::String(value)) {}
  InspectValue(NodePtr value) : value_(std::move(value)) {}
  InspectValue(Record value) : value_(std::move(value)) {}
  InspectValue(List value) : value_(std::move(value)) {}

  // The alternative, or null if the value is another one.
  template <class T>
  [[nodiscard]] const T* as() const noexcept {
    return std::get_if<T>(&value_);
  }
  [[nodiscard]] bool isNothing() const noexcept {
    return std::holds_alternative<std::monostate>(value_);
  }
  // A field of a record; null if there is none, and for what is no record.
  [[nodiscard]] const InspectValue* field(std::string_view name) const noexcept;

  // Calls `visit` with the alternative; with std::monostate for nothing.
  template <class Visit>
  decltype(auto) visit(Visit&& visit) const {
    return std::visit(std::forward<Visit>(visit), value_);
  }

  // As a path writes it: 5, true, "text", {port=3,vlan=100}, [1,2]; a node by its class.
  [[nodiscard]] Lumen::String text() const;

  friend bool operator==(const InspectValue& a, const InspectValue& b) {
    return a.value_ == b.value_;
  }

 private:
  std::variant<std::monostate, bool, std::uint64_t, double, Lumen::String, NodePtr, Record, List>
      value_;
};

}  // namespace Brio
