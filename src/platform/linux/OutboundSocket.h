#pragma once

#include <cstdint>
#include <expected>
#include <optional>

#include "platform/linux/FileDescriptor.h"
#include "platform/network/NWParameters.h"

namespace tandor {

/// A new non-blocking socket of the daemon's own for the given address family: marked so that it is
/// never offered to the provider itself, and bound to the interface that the parameters require.
/// `port` is shared with whoever else asks for it with SO_REUSEADDR; without one the kernel chooses
/// at connecting. Fails with an error number, EADDRINUSE when the port cannot be had.
[[nodiscard]] std::expected<FileDescriptor, int> makeOutboundSocket(
    int family, const NWParameters& parameters, std::optional<std::uint16_t> port);

}  // namespace tandor
