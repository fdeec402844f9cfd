#include "host/Machine.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sstream>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <system_error>
#include <utility>

#include "host/ChildProcess.h"
#include "platform/linux/FileDescriptor.h"

namespace tandor::host {
namespace {

std::string driverName(const std::string& interface) {
  const FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ethtool_drvinfo information{};
  information.cmd = ETHTOOL_GDRVINFO;
  ifreq request{};
  if (!socket.isOpen() || interface.size() >= sizeof request.ifr_name) return {};
  std::ranges::copy(interface, request.ifr_name);
  request.ifr_data = reinterpret_cast<char*>(&information);
  if (::ioctl(socket.get(), SIOCETHTOOL, &request) != 0) return {};
  return {information.driver, ::strnlen(information.driver, sizeof information.driver)};
}

/// Wired, wireless and cellular in the order of preference.
enum class Kind : std::uint8_t { wired, wireless, cellular, other };

/// Whether it is only a view of other interfaces, by its driver's name.
bool isLaidOver(const std::string& driver) {
  constexpr std::array<std::string_view, 6> drivers = {
      "802.1Q VLAN Support", "macvlan", "ipvlan", "bonding", "team", "bridge"};
  return std::ranges::find(drivers, driver) != drivers.end();
}

/// What lies below an interface.
std::vector<std::string> lowersOf(const Machine& machine, const std::string& interface) {
  constexpr std::string_view prefix = "lower_";
  std::vector<std::string> names;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(machine.root / "sys/class/net" / interface, error);
       !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    const std::string name = entry->path().filename();
    if (name.starts_with(prefix)) names.push_back(name.substr(prefix.size()));
  }
  return names;
}

Kind kindOf(const Machine& machine, const std::string& interface, int depth = 0) {
  constexpr int mostLayers = 8;
  const std::string driver = machine.driverOf(interface);
  if (isLaidOver(driver) && depth < mostLayers) {
    Kind best = Kind::other;
    for (const std::string& lower : lowersOf(machine, interface)) {
      // On a bridge, cables lead to containers.
      if (driver == "bridge" && machine.driverOf(lower) == "veth") continue;
      best = std::min(best, kindOf(machine, lower, depth + 1));
    }
    return best;
  }
  const std::string folder = "/sys/class/net/" + interface;
  const std::string properties = machine.read(folder + "/uevent").value_or("");
  if (properties.contains("DEVTYPE=wlan\n")) return Kind::wireless;
  for (const std::string_view type : {"DEVTYPE=wwan\n", "DEVTYPE=ppp\n", "DEVTYPE=bluetooth\n"})
    if (properties.contains(type)) return Kind::cellular;
  constexpr std::string_view ethernet = "1\n";
  if (properties.contains("DEVTYPE=") || machine.read(folder + "/type") != ethernet)
    return Kind::other;
  // A veth pair is the cable of a container.
  if (driver == "rndis_host" || driver == "ipheth") return Kind::cellular;
  const bool isCable = machine.exists(folder + "/device") || driver == "veth";
  return isCable ? Kind::wired : Kind::other;
}

bool isUp(const Machine& machine, const std::string& interface) {
  const std::string state = machine.read("/sys/class/net/" + interface + "/operstate").value_or("");
  return state != "down\n" && state != "lowerlayerdown\n";
}

}  // namespace

Machine Machine::thisOne() {
  return {
      .root = "/",
      .outputOf =
          [](std::vector<std::string> arguments) { return host::outputOf(std::move(arguments)); },
      .driverOf = driverName};
}

std::optional<std::string> Machine::read(const std::string& path) const {
  const std::ifstream file(root / path.substr(1), std::ios::binary);
  if (!file) return std::nullopt;
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

bool Machine::exists(const std::string& path) const {
  std::error_code ignored;
  return std::filesystem::exists(root / path.substr(1), ignored);
}

std::vector<Uplink> uplinks(const Machine& machine) {
  std::vector<Uplink> found;
  std::istringstream lines(machine.read("/proc/net/route").value_or(""));
  for (std::string line; std::getline(lines, line);) {
    // INTERFACE DESTINATION GATEWAY FLAGS REFERENCES USE METRIC MASK ...
    std::istringstream fields(line);
    std::string name, destination, gateway, flags, references, use, mask;
    unsigned metric = 0;
    fields >> name >> destination >> gateway >> flags >> references >> use >> metric >> mask;
    if (!fields || destination != "00000000" || mask != "00000000") continue;
    const auto known = std::ranges::find(found, name, &Uplink::name);
    if (known == found.end()) {
      found.push_back({name, metric});
    } else {
      known->metric = std::min(known->metric, metric);
    }
  }
  // Names are unique here, so that the order is total.
  std::ranges::sort(found, {}, [](const Uplink& uplink) {
    return std::pair(uplink.metric, std::string_view(uplink.name));
  });
  return found;
}

std::optional<std::string> directInterface(const Machine& machine) {
  std::optional<std::pair<Kind, std::string>> best;
  for (const Uplink& uplink : uplinks(machine)) {
    const Kind kind = kindOf(machine, uplink.name);
    if (kind == Kind::other || !isUp(machine, uplink.name)) continue;
    if (!best || kind < best->first) best.emplace(kind, uplink.name);
  }
  if (!best) return std::nullopt;
  return best->second;
}

}  // namespace tandor::host
