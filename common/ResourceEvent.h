#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "common/Json.h"
#include "common/ResourceKinds.h"

namespace Common {

// What the operator or the hardware says of a resource.
enum class ResourceEventKind : std::uint8_t {
  change,   // it gets another index
  refuse,   // it can't be had,
  allow,    // or can again
  prepare,  // one without an index is being prepared,
  confirm,  // is prepared and confirmed next,
  ready,    // can be had
};

// "change", "refuse", "allow", "prepare", "confirm" or "ready".
[[nodiscard]] std::string_view name(ResourceEventKind kind) noexcept;

// An event of one resource. docs/intents.md tells how it is written:
//
//   {"op":"resource","resource":"inLifIndex","key":{"attachmentCircuit":7},"event":"change"}
struct ResourceEvent {
  AnyResourceKey key;
  ResourceEventKind kind = ResourceEventKind::change;

  [[nodiscard]] std::string_view resource() const { return kResourceNames[key.index()]; }
};

// Reads the resource that the members "resource" and "key" of an object name. Throws InputError.
[[nodiscard]] AnyResourceKey readResource(const Json& json);

// Whether a line says that it is one. Throws InputError if it is no JSON, perhaps; cheap for lines
// that are none.
[[nodiscard]] bool isResourceEvent(std::string_view line);
// Reads such a line. Throws InputError: what is wrong, and what to write instead.
[[nodiscard]] ResourceEvent parseResourceEvent(std::string_view line);

}  // namespace Common
