#include "platform/linux/Privileges.h"

#include <array>
#include <cstdint>
#include <fstream>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace tandor {
namespace {

constexpr std::uint64_t bit(int capability) {
  return std::uint64_t{1} << capability;
}

/// For queue, marks and transparent sockets; for iptables where it is the older one; for sockets
/// that stand at a flow's destination, whose port is a well-known one more often than not; for who
/// owns a socket in other users' processes.
constexpr std::uint64_t needed = bit(CAP_NET_ADMIN) | bit(CAP_NET_RAW) | bit(CAP_NET_BIND_SERVICE) |
                                 bit(CAP_SYS_PTRACE) | bit(CAP_DAC_READ_SEARCH);

}  // namespace

void raiseDescriptorLimit() {
  std::uint64_t most = 0;
  std::ifstream("/proc/sys/fs/nr_open") >> most;
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit highest{.rlim_cur = most, .rlim_max = most};
  if (most > limit.rlim_max && ::setrlimit(RLIMIT_NOFILE, &highest) == 0) return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

bool mayAdministerNetwork() {
  __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
  std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> sets{};
  return ::syscall(SYS_capget, &header, sets.data()) == 0 &&
         (sets[0].effective & bit(CAP_NET_ADMIN)) != 0;
}

void dropPrivileges() {
  ::umask(S_IRWXG | S_IRWXO);
  ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  for (int capability = 0; ::prctl(PR_CAPBSET_READ, capability, 0, 0, 0) >= 0; ++capability)
    if ((needed & bit(capability)) == 0) ::prctl(PR_CAPBSET_DROP, capability, 0, 0, 0);

  __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
  std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> sets{};
  if (::syscall(SYS_capget, &header, sets.data()) != 0) return;
  std::uint64_t kept = needed;
  for (auto& set : sets) {  // 32 capabilities each, the lower ones first
    set.permitted &= static_cast<std::uint32_t>(kept);
    set.effective = set.permitted;
    set.inheritable &= static_cast<std::uint32_t>(kept);
    kept >>= 32;
  }
  ::syscall(SYS_capset, &header, sets.data());
}

}  // namespace tandor
