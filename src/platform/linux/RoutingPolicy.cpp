#include "platform/linux/RoutingPolicy.h"

#include <cerrno>
#include <cstdint>
#include <linux/fib_rules.h>
#include <linux/rtnetlink.h>
#include <optional>
#include <vector>

#include "platform/linux/Marks.h"
#include "platform/linux/NetlinkDump.h"
#include "platform/linux/NetlinkRequest.h"

namespace tandor {
namespace {

constexpr std::uint32_t loopbackIndex = 1;  // in every network namespace

void describeRoute(NetlinkRequest& request) {
  auto& route = request.body<rtmsg>();
  route.rtm_family = AF_INET;
  route.rtm_table = RT_TABLE_UNSPEC;  // the number does not fit here
  route.rtm_protocol = RTPROT_STATIC;
  route.rtm_scope = RT_SCOPE_HOST;
  route.rtm_type = RTN_LOCAL;
  ::mnl_attr_put_u32(&request.header(), RTA_TABLE, routingTable);
  ::mnl_attr_put_u32(&request.header(), RTA_OIF, loopbackIndex);
}

/// A rule of ours at the given preference, or wherever it is.
void describeRule(NetlinkRequest& request, std::optional<std::uint32_t> preference) {
  auto& rule = request.body<fib_rule_hdr>();
  rule.family = AF_INET;
  rule.action = FR_ACT_TO_TBL;
  ::mnl_attr_put_u32(&request.header(), FRA_TABLE, routingTable);
  if (preference) ::mnl_attr_put_u32(&request.header(), FRA_PRIORITY, *preference);
  ::mnl_attr_put_u32(&request.header(), FRA_FWMARK, takeMark);
  ::mnl_attr_put_u32(&request.header(), FRA_FWMASK, markMask);
  // Network services that tidy up let the kernel's own rules stand.
  ::mnl_attr_put_u8(&request.header(), FRA_PROTOCOL, RTPROT_KERNEL);
}

/// Whether it was not there already.
std::expected<bool, int> add(const NetlinkRequest& request) {
  const auto added = request.send(NETLINK_ROUTE);
  if (!added && added.error() != EEXIST) return std::unexpected(added.error());
  return added.has_value();
}

/// The machine's rules as far as the place of ours depends on them.
struct Rules {
  std::vector<std::uint32_t> ours;     // their preferences
  std::vector<std::uint32_t> foreign;  // those of all others
  std::optional<std::uint32_t>
      first;             // of the first of these that does not lead to local addresses
  bool isAhead = false;  // is one of ours before that one?
};

std::expected<void, int> dumpRules(Rules& found) {
  fib_rule_hdr all{};
  all.family = AF_INET;
  return dumpNetlink(NETLINK_ROUTE, RTM_GETRULE, headerBytes(all), [&](const nlmsghdr& message) {
    const auto& rule = *static_cast<const fib_rule_hdr*>(::mnl_nlmsg_get_payload(&message));
    std::uint32_t preference = 0;
    std::uint32_t table = rule.table;
    std::uint32_t mark = 0;
    forEachAttribute(message, sizeof rule, [&](const nlattr& attribute) {
      switch (::mnl_attr_get_type(&attribute)) {
        case FRA_PRIORITY:
          preference = ::mnl_attr_get_u32(&attribute);
          break;
        case FRA_TABLE:
          table = ::mnl_attr_get_u32(&attribute);
          break;
        case FRA_FWMARK:
          mark = ::mnl_attr_get_u32(&attribute);
          break;
        default:
          break;
      }
    });
    if (table == routingTable && mark == takeMark) {
      found.ours.push_back(preference);
      found.isAhead = found.isAhead || !found.first;
    } else {
      found.foreign.push_back(preference);
      if (table != RT_TABLE_LOCAL && !found.first) found.first = preference;
    }
  });
}

/// Who adds a rule without a preference gets the second rule's minus one, and a rule comes behind
/// its equals. So right before the first of others ours leaves their order as it would be. Where
/// the second rule is at zero all who come after it are, in turn; there ours has to wait for them
/// at zero, and cannot pass those that are there already.
std::uint32_t bestPreference(const Rules& rules) {
  const bool isZeroNext = rules.foreign.size() < 2 || rules.foreign[1] == 0;
  return isZeroNext || rules.first.value_or(0) == 0 ? 0 : *rules.first - 1;
}

/// Puts the rule where it belongs. The new one comes before the old one goes: no taken packet is
/// without it.
std::expected<RoutingPolicyState, int> place(const Rules& rules) {
  const std::uint32_t preference = bestPreference(rules);
  RoutingPolicyState state{.wasMissing = rules.ours.empty(),
                           .isAhead = rules.isAhead || rules.first != preference};
  if (rules.ours == std::vector{preference}) return state;
  NetlinkRequest added(RTM_NEWRULE, NLM_F_CREATE | NLM_F_EXCL);
  describeRule(added, preference);
  if (const auto isNew = add(added); !isNew) return std::unexpected(isNew.error());
  for (const std::uint32_t old : rules.ours) {
    if (old == preference) continue;
    NetlinkRequest removed(RTM_DELRULE, 0);
    describeRule(removed, old);
    // Somebody else may have been faster.
    static_cast<void>(removed.send(NETLINK_ROUTE));
  }
  state.wasMoved = !state.wasMissing;
  return state;
}

}  // namespace

std::expected<RoutingPolicyState, int> installRoutingPolicy() {
  NetlinkRequest route(RTM_NEWROUTE, NLM_F_CREATE | NLM_F_EXCL);
  describeRoute(route);
  const auto isRouteNew = add(route);
  if (!isRouteNew) return std::unexpected(isRouteNew.error());
  const auto rules = wholeDump(dumpRules);
  if (!rules) return std::unexpected(rules.error());
  auto state = place(*rules);
  if (state) state->wasMissing = state->wasMissing || *isRouteNew;
  return state;
}

std::expected<RoutingPolicyState, int> moveRoutingRule() {
  const auto rules = wholeDump(dumpRules);
  if (!rules) return std::unexpected(rules.error());
  if (rules->ours.empty()) return RoutingPolicyState{};
  return place(*rules);
}

void removeRoutingPolicy() {
  constexpr int mostDuplicates = 16;
  for (int count = 0; count < mostDuplicates; ++count) {
    NetlinkRequest rule(RTM_DELRULE, 0);
    describeRule(rule, std::nullopt);
    if (!rule.send(NETLINK_ROUTE)) break;
  }
  NetlinkRequest route(RTM_DELROUTE, 0);
  describeRoute(route);
  static_cast<void>(route.send(NETLINK_ROUTE));
}

}  // namespace tandor
