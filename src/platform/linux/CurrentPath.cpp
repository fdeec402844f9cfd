#include "platform/linux/CurrentPath.h"

#include <algorithm>
#include <cerrno>
#include <expected>
#include <fstream>
#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/rtnetlink.h>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "platform/linux/NetlinkDump.h"

namespace tandor {
namespace {

using InterfaceType = NWInterface::InterfaceType;

struct Link {
  std::string name;
  std::string kind;  // of a virtual interface; empty for hardware
  std::uint32_t flags = 0;
  std::uint16_t hardware = 0;
};

std::string linkKind(const nlattr& linkInfo) {
  std::string kind;
  forEachAttribute(linkInfo, [&](const nlattr& attribute) {
    if (::mnl_attr_get_type(&attribute) == IFLA_INFO_KIND) kind = ::mnl_attr_get_str(&attribute);
  });
  return kind;
}

using Links = std::map<std::uint32_t, Link>;

std::expected<void, int> dumpLinks(Links& found) {
  const ifinfomsg all{};
  return dumpNetlink(NETLINK_ROUTE, RTM_GETLINK, headerBytes(all), [&](const nlmsghdr& message) {
    const auto& info = *static_cast<const ifinfomsg*>(::mnl_nlmsg_get_payload(&message));
    Link link{.name = {}, .kind = {}, .flags = info.ifi_flags, .hardware = info.ifi_type};
    forEachAttribute(message, sizeof info, [&](const nlattr& attribute) {
      switch (::mnl_attr_get_type(&attribute)) {
        case IFLA_IFNAME:
          link.name = ::mnl_attr_get_str(&attribute);
          break;
        case IFLA_LINKINFO:
          link.kind = linkKind(attribute);
          break;
        default:
          break;
      }
    });
    found.emplace(static_cast<std::uint32_t>(info.ifi_index), std::move(link));
  });
}

/// What the driver says of a device, such as wlan or wwan; empty for plain Ethernet.
std::string deviceType(const std::string& name) {
  std::ifstream uevent("/sys/class/net/" + name + "/uevent");
  for (std::string line; std::getline(uevent, line);)
    if (line.starts_with("DEVTYPE=")) return line.substr(8);
  return {};
}

InterfaceType classify(const Link& link) {
  if ((link.flags & IFF_LOOPBACK) != 0) return InterfaceType::loopback;
  if (link.kind == "veth") return InterfaceType::wiredEthernet;
  if (link.kind == "wwan") return InterfaceType::cellular;
  if (!link.kind.empty()) return InterfaceType::other;
  const std::string device = deviceType(link.name);
  if (device == "wlan") return InterfaceType::wifi;
  if (device == "wwan") return InterfaceType::cellular;
  const bool isEthernet = link.hardware == ARPHRD_ETHER && device.empty();
  return isEthernet ? InterfaceType::wiredEthernet : InterfaceType::other;
}

/// Adds the interfaces of a route over several of them.
void appendNextHops(const nlattr& multipath, std::vector<std::uint32_t>& interfaces) {
  const auto* position = static_cast<const std::byte*>(::mnl_attr_get_payload(&multipath));
  std::size_t left = ::mnl_attr_get_payload_len(&multipath);
  while (left >= sizeof(rtnexthop)) {
    const auto& hop = *reinterpret_cast<const rtnexthop*>(position);
    constexpr std::size_t alignment = RTNH_ALIGNTO;
    const std::size_t length = (hop.rtnh_len + alignment - 1) / alignment * alignment;
    if (length < sizeof hop || length > left) return;
    interfaces.push_back(static_cast<std::uint32_t>(hop.rtnh_ifindex));
    position += length;
    left -= length;
  }
}

/// How good an IPv4 default route is, best first: those of the main table, each by its metric,
/// stand before those that only some traffic sees.
struct Rank {
  bool isElsewhere = false;
  std::uint32_t metric = 0;
  friend auto operator<=>(const Rank&, const Rank&) = default;
};
using Ranks = std::map<std::uint32_t, Rank>;

/// The best default route over each interface, of whatever routing table: a VPN that takes the
/// traffic by a better route or a rule leaves the physical one where it was, or moves it.
std::expected<void, int> dumpDefaultRoutes(Ranks& ranks) {
  rtmsg all{};
  all.rtm_family = AF_INET;
  return dumpNetlink(NETLINK_ROUTE, RTM_GETROUTE, headerBytes(all), [&](const nlmsghdr& message) {
    const auto& route = *static_cast<const rtmsg*>(::mnl_nlmsg_get_payload(&message));
    if (route.rtm_family != AF_INET || route.rtm_dst_len != 0 || route.rtm_type != RTN_UNICAST)
      return;
    Rank rank{.isElsewhere = route.rtm_table != RT_TABLE_MAIN};
    std::vector<std::uint32_t> interfaces;
    forEachAttribute(message, sizeof route, [&](const nlattr& attribute) {
      switch (::mnl_attr_get_type(&attribute)) {
        case RTA_PRIORITY:
          rank.metric = ::mnl_attr_get_u32(&attribute);
          break;
        case RTA_OIF:
          interfaces.push_back(::mnl_attr_get_u32(&attribute));
          break;
        case RTA_MULTIPATH:
          appendNextHops(attribute, interfaces);
          break;
        default:
          break;
      }
    });
    for (const std::uint32_t index : interfaces) {
      const auto [entry, isNew] = ranks.emplace(index, rank);
      if (!isNew) entry->second = std::min(entry->second, rank);
    }
  });
}

}  // namespace

std::expected<NWPath, int> currentPath() {
  constexpr std::uint32_t upAndConnected = IFF_UP | IFF_RUNNING;
  struct Candidate {
    Rank rank;
    NWInterface interface;
  };
  std::vector<Candidate> candidates;
  const auto ranks = wholeDump(dumpDefaultRoutes);
  if (!ranks) return std::unexpected(ranks.error());
  const auto links = wholeDump(dumpLinks);
  if (!links) return std::unexpected(links.error());
  for (const auto& [index, link] : *links) {
    const auto rank = ranks->find(index);
    if (rank == ranks->end() || (link.flags & upAndConnected) != upAndConnected) continue;
    candidates.push_back({rank->second, {link.name, classify(link), index}});
  }
  std::ranges::sort(candidates, {}, [](const Candidate& candidate) {
    return std::pair(candidate.rank, candidate.interface.index);
  });
  NWPath path;
  for (Candidate& candidate : candidates)
    path.availableInterfaces.push_back(std::move(candidate.interface));
  return path;
}

}  // namespace tandor
