#pragma once

#include <array>
#include <cstdint>

namespace tandor {

/// How the kernel's older tables of packet filter rules, mangle and filter, are built: other rules,
/// other numbers, most likely.
using OlderTables = std::array<std::uint32_t, 24>;

/// As they are now. Costs two system calls, and the tables if there were none. All zero when the
/// kernel does not tell.
[[nodiscard]] OlderTables olderTablesNow();

}  // namespace tandor
