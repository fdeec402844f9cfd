#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <sys/types.h>

#include "platform/linux/FileDescriptor.h"

namespace tandor {

/// A probe in the kernel that notes which process connects which TCP socket, at the moment it does:
/// the quick way from a socket to its process, however many of either there are. It watches, it
/// changes nothing. A kernel that cannot have it is served by SocketOwners alone.
class ConnectProbe {
 public:
  /// Who connected a socket.
  struct Connector {
    pid_t pid;
    std::uint64_t startTime;  // of the process, nanoseconds since the machine's start
    std::uint64_t program;    // another one after each exec of the process
  };

  /// Brings the probe into the kernel, where it rests. While the process has all its privileges.
  /// Fails with an error number.
  [[nodiscard]] static std::expected<ConnectProbe, int> load();

  /// Lets it note what happens from here on, until the returned descriptor is closed. Fails with an
  /// error number.
  [[nodiscard]] std::expected<FileDescriptor, int> attach() const;

  /// Who has connected the socket of this inode, told once; absent when that has not been seen.
  /// Takes less than a microsecond. Any thread.
  [[nodiscard]] std::optional<Connector> take(ino_t socket) const noexcept;

 private:
  ConnectProbe(FileDescriptor map, FileDescriptor program) noexcept
      : map_(std::move(map)), program_(std::move(program)) {}

  FileDescriptor map_;
  FileDescriptor program_;
};

}  // namespace tandor
