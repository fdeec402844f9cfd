#pragma once

#include <expected>

#include "platform/network/NWPathMonitor.h"

namespace tandor {

/// The path as the kernel tells it now: the interfaces of this network namespace that are up and
/// hold an IPv4 default route, in the order of its metric; routes of other tables than the main one
/// only where that has none over a physical interface. Bridges, bonds, VLANs and the like have the
/// type of what lies below them. Fails with an error number when the
/// kernel cannot be asked.
[[nodiscard]] std::expected<NWPath, int> currentPath();

}  // namespace tandor
