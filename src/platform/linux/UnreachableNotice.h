#pragma once

#include "platform/linux/FlowKey.h"

namespace tandor {

/// Tells the application of a UDP flow that its datagrams do not arrive, in the way in which it
/// would learn of it natively: by an ICMP message about them, which ends whatever its connected
/// socket waits for with the number `error`. Does nothing for errors that no message stands for.
/// Any thread.
void sendUnreachableNotice(const FlowKey& flow, int error) noexcept;

}  // namespace tandor
