#pragma once

#include <expected>

#include "platform/linux/FileDescriptor.h"
#include "platform/network/NWParameters.h"

namespace tandor {

/// A new non-blocking socket of the daemon's own for the given address family: marked so that it is
/// never offered to the provider itself, and bound to the interface that the parameters require.
/// Fails with an error number.
[[nodiscard]] std::expected<FileDescriptor, int> makeOutboundSocket(int family,
                                                                    const NWParameters& parameters);

}  // namespace tandor
