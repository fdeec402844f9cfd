#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace tandor::host {

/// A TCP or UDP socket of this network namespace, as /proc tells it.
struct InternetSocket {
  enum class Protocol : std::uint8_t { tcp, udp };
  Protocol protocol;
  ino_t inode;  // 0 for one that no process holds any more
};

/// Reads one of the tables tcp, tcp6, udp and udp6.
[[nodiscard]] std::vector<InternetSocket> parseSocketTable(std::string_view table,
                                                           InternetSocket::Protocol protocol);
/// All four of them, from the folder /proc/net.
[[nodiscard]] std::vector<InternetSocket> readSocketTables(
    const std::filesystem::path& folder = "/proc/net");

/// An application of which some process has internet sockets.
struct RunningApplication {
  std::vector<pid_t> pids;
  std::size_t tcp = 0;  // sockets; one that several processes share counts once
  std::size_t udp = 0;
};

/// The running applications that have internet sockets, by identifier.
struct RunningApplications {
  std::map<std::string, RunningApplication> applications;
  std::size_t unreadable = 0;  // processes that could not be looked into
};
[[nodiscard]] RunningApplications findRunningApplications();

}  // namespace tandor::host
