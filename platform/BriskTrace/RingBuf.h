#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "BriskTrace/Layout.h"
#include "BriskTrace/TraceFile.h"

namespace BriskTrace {

// What a message can carry: an unsigned number of 16, 32 or 64 bits, or a value type that consists
// of one.
template <class T>
concept RawArgument = std::is_trivially_copyable_v<T> &&
                      std::has_unique_object_representations_v<T> &&
                      (sizeof(T) == 2 || sizeof(T) == 4 || sizeof(T) == 8) &&
                      (std::is_class_v<T> || std::unsigned_integral<T>);

// The letter of an argument's type in a MsgFormatString.
template <RawArgument T>
[[nodiscard]] constexpr const char* letterOf() noexcept {
  return sizeof(T) == 2 ? "s" : sizeof(T) == 4 ? "i" : "q";
}

// One message on its way into the ring: startMsg, put every argument in the order of the
// descriptor, endMsg. A message that is not ended leaves no trace.
class RingBuf {
 public:
  [[nodiscard]] static RingBuf startMsg(TraceFile& traceFile, std::int32_t id) noexcept {
    return RingBuf(traceFile, id);
  }

  // The caller sees to it that all arguments together take no more than Layout::kMostArgumentBytes.
  template <RawArgument T>
  void put(const T& value) noexcept {
    std::memcpy(reinterpret_cast<char*>(arguments_) + bytes_, &value, sizeof(T));
    bytes_ += sizeof(T);
  }
  void endMsg() noexcept { traceFile_.messageIs(id_, bytes_, arguments_); }

 private:
  RingBuf(TraceFile& traceFile, std::int32_t id) noexcept : traceFile_(traceFile), id_(id) {}

  TraceFile& traceFile_;
  std::int32_t id_;
  std::size_t bytes_ = 0;
  std::uint64_t arguments_[Layout::kArgumentWords] = {};
};

}  // namespace BriskTrace
