#pragma once

#include <cstdint>
#include <expected>

#include "platform/linux/FileDescriptor.h"
#include "platform/network/NWParameters.h"

namespace tandor {

/// How a socket comes to its port. `any`: by the kernel's choice at connecting. Of a stream that is
/// bound to an interface, the kernel may give that port to an application's stream to the same
/// endpoint as well, since that one is bound to none, and replies reach the wrong one of the two.
/// `ofItsOwn`: by asking, which keeps it from whoever does not ask. Another of the daemon's sockets
/// may have it towards the same endpoint; then connecting fails with EADDRNOTAVAIL.
enum class OutboundPort : std::uint8_t { ofItsOwn, any };

/// A new non-blocking socket of the daemon's own for the given address family: marked so that it is
/// never offered to the provider itself, and bound to the interface that the parameters require.
/// Fails with an error number.
[[nodiscard]] std::expected<FileDescriptor, int> makeOutboundSocket(int family,
                                                                    const NWParameters& parameters,
                                                                    OutboundPort port);

}  // namespace tandor
