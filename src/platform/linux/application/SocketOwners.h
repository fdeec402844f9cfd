#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <unordered_map>
#include <vector>

#include "platform/linux/FileDescriptor.h"
#include "platform/linux/application/Connector.h"
#include "platform/linux/application/ProcessDirectory.h"

namespace tandor {

/// The process that owns a socket, and its application.
struct SocketOwner {
  pid_t pid;
  std::shared_ptr<const std::string> identifier;
};

/// Finds the process behind a socket. Every answer is verified at the moment it is given: the
/// process holds the socket, and its executable is read anew, so neither a reused process number
/// nor a program that replaced itself borrows another's identity. Used by one thread.
class SocketOwners {
 public:
  /// Where a socket is held.
  struct Place {
    pid_t pid;
    int descriptor;
  };

  SocketOwners();

  /// The process that was seen to connect a socket, if it still is there.
  [[nodiscard]] std::optional<SocketOwner> identify(const Connector& connector);

  /// Looks where sockets were found lately, at the newest processes, and at those of the socket's
  /// cgroup (its number in the unified hierarchy, 0 for unknown). Takes microseconds. Absent when a
  /// search everywhere might still find the owner.
  [[nodiscard]] std::optional<SocketOwner> findQuickly(ino_t inode, std::uint64_t cgroup);

  /// Searches every process for all the sockets at once; takes milliseconds. Any thread.
  using Places = std::unordered_map<ino_t, Place>;
  [[nodiscard]] static Places searchEverywhere(const std::vector<ino_t>& inodes);

  /// Verifies what a search has found, and remembers the place for the next time. Absent when the
  /// socket is not there any more.
  [[nodiscard]] std::optional<SocketOwner> confirm(Place place, ino_t inode);

 private:
  /// A process that lately owned a socket that was asked for.
  struct Recent {
    ProcessDirectory directory;
    std::string executable;
    std::shared_ptr<const std::string> identifier;
    std::vector<int> descriptors;            // where its sockets were, latest last
    std::optional<std::uint64_t> startTime;  // in ticks
    std::optional<std::uint64_t> program;    // what the executable was read for
  };
  using Recents = std::list<Recent>;

  /// Counts the looks at descriptors that a quick search may still make.
  class Budget;

  [[nodiscard]] std::optional<SocketOwner> findAmongRecent(ino_t inode, Budget& budget);
  [[nodiscard]] std::optional<SocketOwner> findAmong(const std::vector<pid_t>& candidates,
                                                     ino_t inode, Budget& budget);
  [[nodiscard]] std::optional<SocketOwner> found(Recents::iterator recent, int descriptor);
  /// Reads what the process runs now. Forgets a process that has ended.
  [[nodiscard]] std::optional<SocketOwner> identify(Recents::iterator recent);
  [[nodiscard]] Recents::iterator remember(ProcessDirectory directory);
  [[nodiscard]] std::vector<pid_t> processesOfCgroup(std::uint64_t cgroup) const;

  FileDescriptor cgroupRoot_;  // of the unified hierarchy; closed where there is none
  Recents recents_;            // latest first
};

}  // namespace tandor
