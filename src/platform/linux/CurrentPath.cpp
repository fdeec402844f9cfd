#include "platform/linux/CurrentPath.h"

#include <algorithm>
#include <cerrno>
#include <expected>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
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
  std::uint32_t master = 0;       // the index of the bridge or bond that it is a port of
  std::uint32_t lower = 0;        // the index of the interface that it is laid over
  bool isLowerElsewhere = false;  // in another network namespace
  bool isAddressLocal = false;    // made up, not the manufacturer's
};

std::string linkKind(const nlattr& linkInfo) {
  std::string kind;
  forEachAttribute(linkInfo, [&](const nlattr& attribute) {
    if (::mnl_attr_get_type(&attribute) == IFLA_INFO_KIND) kind = ::mnl_attr_get_str(&attribute);
  });
  return kind;
}

bool isLocallyMade(const nlattr& address) {
  constexpr unsigned char localBit = 0x02;
  return ::mnl_attr_get_payload_len(&address) > 0 &&
         (*static_cast<const unsigned char*>(::mnl_attr_get_payload(&address)) & localBit) != 0;
}

using Links = std::map<std::uint32_t, Link>;

std::expected<void, int> dumpLinks(Links& found) {
  const ifinfomsg all{};
  return dumpNetlink(NETLINK_ROUTE, RTM_GETLINK, headerBytes(all), [&](const nlmsghdr& message) {
    const auto& info = *static_cast<const ifinfomsg*>(::mnl_nlmsg_get_payload(&message));
    Link link;
    link.flags = info.ifi_flags;
    link.hardware = info.ifi_type;
    forEachAttribute(message, sizeof info, [&](const nlattr& attribute) {
      switch (::mnl_attr_get_type(&attribute)) {
        case IFLA_IFNAME:
          link.name = ::mnl_attr_get_str(&attribute);
          break;
        case IFLA_LINKINFO:
          link.kind = linkKind(attribute);
          break;
        case IFLA_MASTER:
          link.master = ::mnl_attr_get_u32(&attribute);
          break;
        case IFLA_LINK:
          link.lower = ::mnl_attr_get_u32(&attribute);
          break;
        case IFLA_LINK_NETNSID:
          link.isLowerElsewhere = true;
          break;
        case IFLA_ADDRESS:
          link.isAddressLocal = isLocallyMade(attribute);
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

/// A phone that lends its connection is an Ethernet adapter to the kernel. Its driver tells it from
/// one with a cable, or the address that it has made up, as the kernel's own naming has it.
bool isPhone(const Link& link) {
  std::error_code error;
  const std::string driver =
      std::filesystem::read_symlink("/sys/class/net/" + link.name + "/device/driver", error)
          .filename();
  return driver == "rndis_host" || driver == "ipheth" ||
         (driver.starts_with("cdc_") && link.isAddressLocal);
}

InterfaceType classifyHardware(const Link& link) {
  const std::string device = deviceType(link.name);
  if (device == "wlan") return InterfaceType::wifi;
  if (device == "wwan" || device == "bluetooth") return InterfaceType::cellular;
  if (link.hardware != ARPHRD_ETHER || !device.empty()) return InterfaceType::other;
  return isPhone(link) ? InterfaceType::cellular : InterfaceType::wiredEthernet;
}

/// Smaller ones are preferred.
int preference(InterfaceType type) {
  switch (type) {
    case InterfaceType::wiredEthernet:
      return 0;
    case InterfaceType::wifi:
      return 1;
    case InterfaceType::cellular:
      return 2;
    default:
      return 3;
  }
}

bool isPhysical(InterfaceType type) {
  return preference(type) < preference(InterfaceType::other);
}

bool isOneOf(const std::string& kind, std::initializer_list<std::string_view> kinds) {
  return std::ranges::find(kinds, kind) != kinds.end();
}

/// An interface that is only a view of others counts as these: the one that it is laid over, or the
/// most preferred of its ports.
InterfaceType classify(const Links& links, std::uint32_t index, int depth = 0) {
  constexpr int mostLayers = 8;
  const auto found = links.find(index);
  if (found == links.end() || depth == mostLayers) return InterfaceType::other;
  const Link& link = found->second;
  if ((link.flags & IFF_LOOPBACK) != 0) return InterfaceType::loopback;
  if (link.kind.empty()) return classifyHardware(link);
  if (link.kind == "veth") return InterfaceType::wiredEthernet;
  if (isOneOf(link.kind, {"wwan", "ppp"})) return InterfaceType::cellular;
  if (isOneOf(link.kind, {"vlan", "macvlan", "macvtap", "ipvlan", "ipvtap"})) {
    // A container's cable, of which it cannot see the other end.
    if (link.isLowerElsewhere) return InterfaceType::wiredEthernet;
    return classify(links, link.lower, depth + 1);
  }
  const bool isBridge = link.kind == "bridge";
  auto best = InterfaceType::other;
  if (!isBridge && !isOneOf(link.kind, {"bond", "team"})) return best;
  for (const auto& [portIndex, port] : links) {
    // On a bridge, cables and taps lead to containers and virtual machines.
    if (port.master != index || (isBridge && port.kind == "veth")) continue;
    const auto type = classify(links, portIndex, depth + 1);
    if (preference(type) < preference(best)) best = type;
  }
  return best;
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

/// The interfaces of each next hop that is an object of its own, or of a group of them.
using NextHops = std::map<std::uint32_t, std::vector<std::uint32_t>>;

std::expected<void, int> dumpNextHops(NextHops& found) {
  const nhmsg all{};
  std::map<std::uint32_t, std::vector<std::uint32_t>> groups;
  const auto dumped =
      dumpNetlink(NETLINK_ROUTE, RTM_GETNEXTHOP, headerBytes(all), [&](const nlmsghdr& message) {
        std::uint32_t id = 0;
        std::uint32_t interface = 0;
        std::vector<std::uint32_t> members;
        forEachAttribute(message, sizeof all, [&](const nlattr& attribute) {
          switch (::mnl_attr_get_type(&attribute)) {
            case NHA_ID:
              id = ::mnl_attr_get_u32(&attribute);
              break;
            case NHA_OIF:
              interface = ::mnl_attr_get_u32(&attribute);
              break;
            case NHA_GROUP: {
              const std::span entries(
                  static_cast<const nexthop_grp*>(::mnl_attr_get_payload(&attribute)),
                  ::mnl_attr_get_payload_len(&attribute) / sizeof(nexthop_grp));
              for (const nexthop_grp& entry : entries) members.push_back(entry.id);
              break;
            }
            default:
              break;
          }
        });
        if (interface != 0) found[id].push_back(interface);
        if (!members.empty()) groups[id] = std::move(members);
      });
  // No group is in another.
  for (const auto& [id, members] : groups) {
    for (const std::uint32_t member : members)
      if (const auto hop = found.find(member); hop != found.end())
        std::ranges::copy(hop->second, std::back_inserter(found[id]));
  }
  return dumped;
}

/// How good an IPv4 default route is, best first: those of the main table, each by its metric,
/// stand before those that only some traffic sees.
struct Rank {
  bool isElsewhere = false;
  std::uint32_t metric = 0;
  friend auto operator<=>(const Rank&, const Rank&) = default;
};
using Ranks = std::map<std::uint32_t, Rank>;

/// A default route, by interfaces or by the next hop's object.
struct DefaultRoute {
  Rank rank;
  std::vector<std::uint32_t> interfaces;
  std::uint32_t nextHop = 0;
};
using DefaultRoutes = std::vector<DefaultRoute>;

/// The default routes of whatever routing table: a VPN that takes the
/// traffic by a better route or a rule leaves the physical one where it was, or moves it.
std::expected<void, int> dumpDefaultRoutes(DefaultRoutes& found) {
  rtmsg all{};
  all.rtm_family = AF_INET;
  return dumpNetlink(NETLINK_ROUTE, RTM_GETROUTE, headerBytes(all), [&](const nlmsghdr& message) {
    const auto& route = *static_cast<const rtmsg*>(::mnl_nlmsg_get_payload(&message));
    if (route.rtm_family != AF_INET || route.rtm_dst_len != 0 || route.rtm_type != RTN_UNICAST)
      return;
    DefaultRoute seen{.rank = {.isElsewhere = route.rtm_table != RT_TABLE_MAIN}, .interfaces = {}};
    forEachAttribute(message, sizeof route, [&](const nlattr& attribute) {
      switch (::mnl_attr_get_type(&attribute)) {
        case RTA_PRIORITY:
          seen.rank.metric = ::mnl_attr_get_u32(&attribute);
          break;
        case RTA_OIF:
          seen.interfaces.push_back(::mnl_attr_get_u32(&attribute));
          break;
        case RTA_MULTIPATH:
          appendNextHops(attribute, seen.interfaces);
          break;
        case RTA_NH_ID:
          seen.nextHop = ::mnl_attr_get_u32(&attribute);
          break;
        default:
          break;
      }
    });
    found.push_back(std::move(seen));
  });
}

/// The best default route over each interface.
std::expected<Ranks, int> defaultRoutes() {
  auto routes = wholeDump(dumpDefaultRoutes);
  if (!routes) return std::unexpected(routes.error());
  // Unless it is told not to, the kernel names the interfaces of a next hop's object as well.
  const auto isUnresolved = [](const DefaultRoute& route) {
    return route.interfaces.empty() && route.nextHop != 0;
  };
  if (std::ranges::any_of(*routes, isUnresolved)) {
    auto hops = wholeDump(dumpNextHops);
    if (!hops) return std::unexpected(hops.error());
    for (DefaultRoute& route : *routes)
      if (isUnresolved(route)) route.interfaces = (*hops)[route.nextHop];
  }
  Ranks ranks;
  for (const DefaultRoute& route : *routes) {
    for (const std::uint32_t index : route.interfaces) {
      const auto [entry, isNew] = ranks.emplace(index, route.rank);
      if (!isNew) entry->second = std::min(entry->second, route.rank);
    }
  }
  return ranks;
}

}  // namespace

std::expected<NWPath, int> currentPath() {
  constexpr std::uint32_t upAndConnected = IFF_UP | IFF_RUNNING;
  struct Candidate {
    Rank rank;
    NWInterface interface;
  };
  std::vector<Candidate> candidates;
  const auto ranks = defaultRoutes();
  if (!ranks) return std::unexpected(ranks.error());
  const auto links = wholeDump(dumpLinks);
  if (!links) return std::unexpected(links.error());
  for (const auto& [index, link] : *links) {
    const auto rank = ranks->find(index);
    if (rank == ranks->end() || (link.flags & upAndConnected) != upAndConnected) continue;
    candidates.push_back({rank->second, {link.name, classify(*links, index), index}});
  }
  std::ranges::sort(candidates, {}, [](const Candidate& candidate) {
    return std::pair(candidate.rank, candidate.interface.index);
  });
  // Where the main table leads out by itself, the routes of other tables are for some traffic only,
  // however much the interface would be preferred.
  const bool isMainEnough = std::ranges::any_of(candidates, [](const Candidate& candidate) {
    return !candidate.rank.isElsewhere && isPhysical(candidate.interface.type);
  });
  if (isMainEnough)
    std::erase_if(candidates,
                  [](const Candidate& candidate) { return candidate.rank.isElsewhere; });
  NWPath path;
  for (Candidate& candidate : candidates)
    path.availableInterfaces.push_back(std::move(candidate.interface));
  return path;
}

}  // namespace tandor
