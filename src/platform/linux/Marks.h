#pragma once

#include <cstdint>

namespace tandor {

/// Packet and connection marks: one nibble, so that other software's bits stay as they are.
inline constexpr std::uint32_t markMask = 0x70000000;
inline constexpr std::uint32_t bypassMark = 0x10000000;  // the daemon's own sockets

}  // namespace tandor
