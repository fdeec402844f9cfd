#pragma once

#include "platform/network/NWPathMonitor.h"

namespace tandor {

/// The path as the kernel tells it now: the interfaces of this network namespace that are up and
/// hold an IPv4 default route, in the order of its metric. Empty when the kernel cannot be asked.
[[nodiscard]] NWPath currentPath();

}  // namespace tandor
