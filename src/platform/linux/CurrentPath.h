#pragma once

#include <expected>

#include "platform/network/NWPathMonitor.h"

namespace tandor {

/// The path as the kernel tells it now: the interfaces of this network namespace that are up and
/// hold an IPv4 default route, in the order of its metric. Fails with an error number when the
/// kernel cannot be asked.
[[nodiscard]] std::expected<NWPath, int> currentPath();

}  // namespace tandor
