#pragma once

#include <cstdint>
#include <expected>

#include "platform/linux/FileDescriptor.h"
#include "platform/network/NWParameters.h"

namespace tandor {

/// Whose the port of a stream is that is bound to an interface. The kernel gives the same port to
/// an application's socket, too, towards the same endpoint, because that one is bound to none; the
/// replies to either may then reach the other. A port of its own is no application's, but may be in
/// use by the daemon towards the same endpoint: then connecting fails with EADDRNOTAVAIL.
enum class OutboundPort : std::uint8_t { ofItsOwn, any };

/// A new non-blocking socket of the daemon's own for the given address family: marked so that it is
/// never offered to the provider itself, and bound to the interface that the parameters require.
/// Fails with an error number.
[[nodiscard]] std::expected<FileDescriptor, int> makeOutboundSocket(int family,
                                                                    const NWParameters& parameters,
                                                                    OutboundPort port);

}  // namespace tandor
