// What interception needs of the network and of other software.

#include <algorithm>
#include <iterator>
#include <sstream>
#include <utility>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "host/Doctor.h"
#include "platform/foundation/Text.h"

namespace tandor::host {
namespace {

using Result = Finding::Result;

constexpr std::string_view queueNumber = "77";

int filterLevel(const Machine& machine, const std::string& interface) {
  const std::string text =
      machine.read("/proc/sys/net/ipv4/conf/" + interface + "/rp_filter").value_or("0");
  return text.empty() ? 0 : text.front() - '0';
}

}  // namespace

Finding checkQueue(const Machine& machine, bool isProviderRunning) {
  const std::string check = fmt::format("packet queue {}", queueNumber);
  if (isProviderRunning) return {check, Result::good, "is the running provider's", ""};
  const auto queues = machine.read("/proc/net/netfilter/nfnetlink_queue");
  // The list comes with the module, which is loaded when somebody listens.
  std::istringstream lines(queues.value_or(""));
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    std::string number, port;
    fields >> number >> port;
    if (number == queueNumber) {
      return {check, Result::failure, fmt::format("is used by a program (netlink port {})", port),
              "end that program, or give it another queue"};
    }
  }
  return {check, Result::good, "is free", ""};
}

Finding checkDefaultRoute(const Machine& machine) {
  const auto found = uplinks(machine);
  if (found.empty()) {
    return {"default route", Result::failure, "there is none: no flow leaves this machine",
            "connect the machine to a network; `ip route` shows the routes"};
  }
  std::vector<std::string> names;
  std::ranges::transform(found, std::back_inserter(names), &Uplink::name);
  return {"default route", Result::good, fmt::format("over {}", fmt::join(names, ", then ")), ""};
}

Finding checkDirectInterface(const Machine& machine) {
  if (const auto name = directInterface(machine))
    return {"direct connections", Result::good, fmt::format("would go over {}", *name), ""};
  return {
      "direct connections", Result::warning,
      "no wired, wireless or cellular interface has a default route, so they are bound to none: "
      "they go by the machine's routes, through a VPN where these say so",
      "webProxy mode does not need one; for the other modes, connect such an interface"};
}

Finding checkReversePathFilter(const Machine& machine) {
  constexpr int strict = 1;
  std::vector<std::string> names;
  for (const Uplink& uplink : uplinks(machine)) {
    // The stricter number of all and of the interface counts; 2, loose, is above 1, strict.
    if (std::max(filterLevel(machine, "all"), filterLevel(machine, uplink.name)) == strict)
      names.push_back(uplink.name);
  }
  if (names.empty())
    return {"reverse path filter", Result::good, "lets replies over every interface in", ""};
  std::vector<std::string> settings;
  std::ranges::transform(names, std::back_inserter(settings), [](const std::string& name) {
    return fmt::format("net.ipv4.conf.{}.rp_filter=2", name);
  });
  return {"reverse path filter", Result::warning,
          fmt::format("rp_filter=1 on {}: replies to direct connections are dropped while another "
                      "interface, such as a VPN's, has the better route",
                      fmt::join(names, ", ")),
          fmt::format("sudo sysctl -w {}; write the same into /etc/sysctl.d/60-tandor.conf to keep "
                      "it",
                      fmt::join(settings, " "))};
}

}  // namespace tandor::host
