#pragma once

#include <cstdint>
#include <expected>

namespace tandor {

/// Ours, by a fixed number, so that a later process can clear up after an earlier one.
inline constexpr std::uint32_t routingTable = 7700;

/// Sends packets with the mark of taken flows to this machine itself: a rule, and a routing table
/// of our own whose one route says that every address is local. Adds what is not there; the result
/// is whether anything was missing. Fails with an error number: ENETDOWN while the loopback
/// interface is down, without which there is no such route.
[[nodiscard]] std::expected<bool, int> installRoutingPolicy();
/// Undoes it, also what an earlier process left; nothing there is no failure.
void removeRoutingPolicy();

}  // namespace tandor
