#pragma once

#include <cstdint>

namespace tandor::bench {

/// How often this program has allocated memory.
[[nodiscard]] std::uint64_t allocations() noexcept;

}  // namespace tandor::bench
