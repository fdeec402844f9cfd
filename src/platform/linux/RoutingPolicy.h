#pragma once

#include <cstdint>
#include <expected>

namespace tandor {

/// Ours, by a fixed number, so that a later process can clear up after an earlier one.
inline constexpr std::uint32_t routingTable = 7700;

/// How the routing policy was found, before it was put in order.
struct RoutingPolicyState {
  bool wasMissing = false;  // the rule or its route
  bool wasMoved = false;    // the rule, to where it belongs
  /// Whether no rule of others sees a taken packet first, now.
  bool isAhead = true;
};

/// Sends packets with the mark of taken flows to this machine itself: a rule, and a routing table
/// of our own whose one route says that every address is local. The rule is ahead of all but those
/// of the machine's own addresses, and so close before the next that rules which others add without
/// a preference come where they would come without ours. Adds what is not there, and moves the rule
/// when it is not where it belongs; it is there all the time. Fails with an error number: ENETDOWN
/// while the loopback interface is down, without which there is no such route.
[[nodiscard]] std::expected<RoutingPolicyState, int> installRoutingPolicy();
/// Moves the rule when it is not where it belongs; adds nothing where it is not there. Fails with
/// an error number.
[[nodiscard]] std::expected<RoutingPolicyState, int> moveRoutingRule();
/// Undoes it, also what an earlier process left; nothing there is no failure.
void removeRoutingPolicy();

}  // namespace tandor
