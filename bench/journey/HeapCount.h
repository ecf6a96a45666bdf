#pragma once

#include <cstdint>

namespace Bench {

// Allocations from the general heap since the process began, by whatever part of it.
[[nodiscard]] std::uint64_t heapAllocations() noexcept;

}  // namespace Bench
