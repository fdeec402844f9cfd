#pragma once

#include <expected>

namespace tandor {

/// Sends packets with the mark of taken flows to this machine itself: a rule, and a routing table
/// of our own whose one route says that every address is local. Idempotent. Fails with an error
/// number.
[[nodiscard]] std::expected<void, int> installRoutingPolicy();
/// Undoes it, also what an earlier process left; nothing there is no failure.
void removeRoutingPolicy();

}  // namespace tandor
