#include "platform/linux/RoutingPolicy.h"

#include <cerrno>
#include <cstdint>
#include <linux/fib_rules.h>
#include <linux/rtnetlink.h>

#include "platform/linux/Marks.h"
#include "platform/linux/NetlinkRequest.h"

namespace tandor {
namespace {

/// Right behind the machine's own addresses: a VPN's rule must not see a taken packet first.
constexpr std::uint32_t preference = 1;
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

void describeRule(NetlinkRequest& request) {
  auto& rule = request.body<fib_rule_hdr>();
  rule.family = AF_INET;
  rule.action = FR_ACT_TO_TBL;
  ::mnl_attr_put_u32(&request.header(), FRA_TABLE, routingTable);
  ::mnl_attr_put_u32(&request.header(), FRA_PRIORITY, preference);
  ::mnl_attr_put_u32(&request.header(), FRA_FWMARK, takeMark);
  ::mnl_attr_put_u32(&request.header(), FRA_FWMASK, markMask);
}

/// Whether it was not there already.
std::expected<bool, int> add(const NetlinkRequest& request) {
  const auto added = request.send(NETLINK_ROUTE);
  if (!added && added.error() != EEXIST) return std::unexpected(added.error());
  return added.has_value();
}

}  // namespace

std::expected<bool, int> installRoutingPolicy() {
  NetlinkRequest route(RTM_NEWROUTE, NLM_F_CREATE | NLM_F_EXCL);
  describeRoute(route);
  const auto isRouteNew = add(route);
  if (!isRouteNew) return isRouteNew;
  NetlinkRequest rule(RTM_NEWRULE, NLM_F_CREATE | NLM_F_EXCL);
  describeRule(rule);
  const auto isRuleNew = add(rule);
  if (!isRuleNew) return isRuleNew;
  return *isRouteNew || *isRuleNew;
}

void removeRoutingPolicy() {
  constexpr int mostDuplicates = 16;
  for (int count = 0; count < mostDuplicates; ++count) {
    NetlinkRequest rule(RTM_DELRULE, 0);
    describeRule(rule);
    if (!rule.send(NETLINK_ROUTE)) break;
  }
  NetlinkRequest route(RTM_DELROUTE, 0);
  describeRoute(route);
  static_cast<void>(route.send(NETLINK_ROUTE));
}

}  // namespace tandor
