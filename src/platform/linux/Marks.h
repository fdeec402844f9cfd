#pragma once

#include <cstdint>

namespace tandor {

/// Packet and connection marks: one nibble, so that other software's bits stay as they are.
inline constexpr std::uint32_t markMask = 0x70000000;
inline constexpr std::uint32_t bypassMark = 0x10000000;  // the daemon's own sockets
inline constexpr std::uint32_t leaveMark = 0x20000000;   // flows that stay with the kernel
inline constexpr std::uint32_t takeMark = 0x30000000;    // flows that come to us
inline constexpr std::uint32_t refuseMark = 0x40000000;  // flows that are answered with an error

}  // namespace tandor
