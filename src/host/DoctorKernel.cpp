// What interception needs of the kernel and of the packet filter's tools.

#include <charconv>
#include <optional>
#include <sstream>
#include <string_view>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "host/Doctor.h"

namespace tandor::host {
namespace {

using Result = Finding::Result;

/// A part of the kernel that can be built in, a module, or missing.
struct Feature {
  std::string_view module;
  std::string_view option;  // of the kernel's configuration
  std::string_view list;    // where /proc/net lists it once it is there; empty for nowhere
  std::string_view listed;
};

constexpr Feature features[] = {
    {"xt_NFQUEUE", "NETFILTER_XT_TARGET_NFQUEUE", "ip_tables_targets", "NFQUEUE"},
    {"xt_TPROXY", "NETFILTER_XT_TARGET_TPROXY", "ip_tables_targets", "TPROXY"},
    {"xt_mark", "NETFILTER_XT_MARK", "ip_tables_targets", "MARK"},
    {"xt_connmark", "NETFILTER_XT_CONNMARK", "ip_tables_targets", "CONNMARK"},
    {"xt_conntrack", "NETFILTER_XT_MATCH_CONNTRACK", "ip_tables_matches", "conntrack"},
    {"xt_addrtype", "NETFILTER_XT_MATCH_ADDRTYPE", "ip_tables_matches", "addrtype"},
    {"ipt_REJECT", "IP_NF_TARGET_REJECT", "ip_tables_targets", "REJECT"},
    {"nfnetlink_queue", "NETFILTER_NETLINK_QUEUE", "netfilter/nfnetlink_queue", ""},
    {"nf_conntrack_netlink", "NF_CT_NETLINK", "", ""},
    {"tcp_diag", "INET_TCP_DIAG", "", ""},
    {"udp_diag", "INET_UDP_DIAG", "", ""},
};

bool hasLine(const std::string& text, std::string_view wanted) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);)
    if (line == wanted) return true;
  return false;
}

/// What is known of the running kernel without asking it to load anything.
struct Kernel {
  std::string release;
  std::optional<std::string> configuration;
  std::optional<std::string> builtIn;
  std::optional<std::string> modules;

  static Kernel of(const Machine& machine) {
    Kernel kernel;
    kernel.release = machine.read("/proc/sys/kernel/osrelease").value_or("");
    while (kernel.release.ends_with('\n')) kernel.release.pop_back();
    const std::string folder = "/lib/modules/" + kernel.release;
    kernel.configuration = machine.read("/boot/config-" + kernel.release);
    if (!kernel.configuration && machine.exists("/proc/config.gz"))
      kernel.configuration = machine.outputOf({"zcat", (machine.root / "proc/config.gz").string()});
    kernel.builtIn = machine.read(folder + "/modules.builtin");
    kernel.modules = machine.read(folder + "/modules.dep");
    return kernel;
  }

  [[nodiscard]] Finding look(const Machine& machine, const Feature& feature) const {
    const std::string check = fmt::format("kernel: {}", feature.module);
    if (isThere(machine, feature)) return {check, Result::good, "is there", ""};
    const std::string file = fmt::format("/{}.ko", feature.module);
    if (builtIn && builtIn->contains(file)) return {check, Result::good, "is built in", ""};
    if (configuration && hasLine(*configuration, fmt::format("CONFIG_{}=y", feature.option)))
      return {check, Result::good, "is built in", ""};
    if (modules && modules->contains(file)) {
      if (machine.read("/proc/sys/kernel/modules_disabled") != "1\n")
        return {check, Result::good, "is a module that can be loaded", ""};
      return {check, Result::failure, "is a module, and this kernel loads no more modules",
              fmt::format("load it early, with the line {} in /etc/modules, and start the machine "
                          "again",
                          feature.module)};
    }
    if (!configuration && !modules) {
      return {check, Result::unknown, "this kernel does not tell what it has",
              "a start will tell: its error names what is missing"};
    }
    return {check, Result::failure, fmt::format("the running kernel {} does not have it", release),
            fmt::format("start a kernel with CONFIG_{}, such as the distribution's own; behind an "
                        "upgrade of the kernel, start the machine again",
                        feature.option)};
  }

 private:
  static bool isThere(const Machine& machine, const Feature& feature) {
    if (machine.exists(fmt::format("/sys/module/{}", feature.module))) return true;
    if (feature.list.empty()) return false;
    const auto list = machine.read(fmt::format("/proc/net/{}", feature.list));
    return list && (feature.listed.empty() || hasLine(*list, feature.listed));
  }
};

std::optional<std::uint64_t> effectiveCapabilities(const Machine& machine) {
  std::istringstream lines(machine.read("/proc/self/status").value_or(""));
  constexpr std::string_view key = "CapEff:\t";
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with(key)) continue;
    const std::string_view number = std::string_view(line).substr(key.size());
    std::uint64_t capabilities = 0;
    const auto [end, error] =
        std::from_chars(number.data(), number.data() + number.size(), capabilities, 16);
    if (error == std::errc()) return capabilities;
  }
  return std::nullopt;
}

}  // namespace

Finding checkPrivileges(const Machine& machine) {
  struct Capability {
    unsigned number;
    std::string_view name;
  };
  static constexpr Capability needed[] = {
      {12, "CAP_NET_ADMIN"}, {19, "CAP_SYS_PTRACE"}, {2, "CAP_DAC_READ_SEARCH"}};
  const auto effective = effectiveCapabilities(machine);
  if (!effective) return {"privileges", Result::unknown, "/proc does not tell", "mount /proc"};
  std::vector<std::string_view> missing;
  for (const auto& [number, name] : needed)
    if ((*effective >> number & 1U) == 0) missing.push_back(name);
  if (missing.empty()) return {"privileges", Result::good, "enough to intercept flows", ""};
  return {"privileges", Result::failure, fmt::format("{} missing", fmt::join(missing, ", ")),
          "run it as root: sudo tandor doctor"};
}

Finding checkPacketFilterTool(const Machine& machine) {
  const auto version = machine.outputOf({"iptables-restore", "--version"});
  if (!version) {
    return {"iptables-restore", Result::failure, "is not installed",
            "install the package iptables"};
  }
  return {"iptables-restore", Result::good, version->substr(0, version->find('\n')), ""};
}

std::vector<Finding> checkKernelFeatures(const Machine& machine) {
  std::vector<Finding> findings;
  const Kernel kernel = Kernel::of(machine);
  for (const Feature& feature : features) findings.push_back(kernel.look(machine, feature));
  const std::string tool = machine.outputOf({"iptables-restore", "--version"}).value_or("");
  if (tool.contains("nf_tables")) {
    findings.push_back(kernel.look(machine, {"nft_compat", "NFT_COMPAT", "", ""}));
  } else if (tool.contains("legacy")) {
    findings.push_back(
        kernel.look(machine, {"iptable_mangle", "IP_NF_MANGLE", "ip_tables_names", "mangle"}));
    findings.push_back(
        kernel.look(machine, {"iptable_filter", "IP_NF_FILTER", "ip_tables_names", "filter"}));
  }
  return findings;
}

}  // namespace tandor::host
