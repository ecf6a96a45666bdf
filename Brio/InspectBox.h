#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "Brio/InspectType.h"
#include "Brio/InspectValue.h"
#include "Lumen/ModuleInspectData.h"

namespace Brio {

// The type that a builtin code (Lumen::InspectTypeCode) stands for; nothing has room for a byte.
[[nodiscard]] const InspectType* inspectBuiltin(std::int16_t code);

// Memory for one value of the type that a module's row names, as the functions of a class want it.
class InspectBox {
 public:
  // Holds the default value. `type` is a code of `module`, `flags` are those of its row.
  InspectBox(const Lumen::ModuleInspectData& module, std::int16_t type, unsigned flags);
  ~InspectBox();
  InspectBox(InspectBox&& other) noexcept = default;
  InspectBox(const InspectBox&) = delete;
  InspectBox& operator=(const InspectBox&) = delete;

  [[nodiscard]] void* at() const noexcept { return memory_.get(); }
  [[nodiscard]] InspectValue get() const;
  // As fromInspect(). A node must be of the class that is wanted; nothing stands for null.
  void set(const InspectValue& from, std::string_view name);
  // Whether it holds a node, or null in the place of one.
  [[nodiscard]] bool holdsNode() const noexcept { return kind_ != Kind::value; }

 private:
  enum class Kind { value, ptr, pointer };

  const Lumen::ModuleInspectData::Dependency* dependency_ = nullptr;
  const InspectType* type_ = nullptr;
  Kind kind_ = Kind::value;
  std::unique_ptr<std::max_align_t[]> memory_;
};

}  // namespace Brio
