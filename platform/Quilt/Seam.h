#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

#ifdef KELP_STORE_SEAM
#include <unistd.h>
#endif

// The seam through which every store to shared memory goes, and every operation on a file of the
// store or of the state database that changes something. It is a plain store, and nothing, unless
// the program is built with KELP_STORE_SEAM: then the steps are counted, and the process ends
// without a word in front of the step that was chosen. A program uses the one form or the other in
// all its units.

namespace Quilt::Seam {

#ifdef KELP_STORE_SEAM

inline constexpr int kExitStatus = 77;

// Steps taken so far, and the number of the step that is not taken any more (0: none).
inline std::uint64_t steps = 0;
inline std::uint64_t endBefore = 0;

inline void step() noexcept {
  ++steps;
  if (steps == endBefore) {
    ::_exit(kExitStatus);
  }
}

#else

inline void step() noexcept {}

#endif

// Copies bytes that no other process reads yet.
inline void copy(void* to, const void* from, std::size_t bytes) noexcept {
  step();
  std::memcpy(to, from, bytes);
}

// Stores `value` in a word that other processes read. `order` says what they may rely on.
template <class T>
inline void store(std::atomic<T>& word, T value, std::memory_order order) noexcept {
  step();
  word.store(value, order);
}

}  // namespace Quilt::Seam
