#pragma once

#include <expected>

#include "platform/linux/FlowKey.h"

namespace tandor {

/// Makes the kernel forget a tracked connection, so that its addresses start afresh. Nothing there
/// is no failure.
void forgetTracked(const FlowKey& flow);

/// Makes it forget every connection that carries the mark of taken flows: with nobody to take them,
/// their packets would vanish. Fails with an error number.
[[nodiscard]] std::expected<void, int> forgetTaken();

}  // namespace tandor
