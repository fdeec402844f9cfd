#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "platform/linux/FileDescriptor.h"

namespace tandor {

/// An open directory of one process under /proc. It stays with that very process: when it has
/// ended, every question fails, even if another process got the same number. Every answer is the
/// kernel's own: no file that the process could have put anywhere is looked at, since whoever made
/// it, or serves its file system, decides how long that takes. Used by one thread at a time.
class ProcessDirectory {
 public:
  /// Absent when there is no such process, or it may not be looked into.
  [[nodiscard]] static std::optional<ProcessDirectory> open(pid_t pid);

  [[nodiscard]] pid_t pid() const noexcept { return pid_; }

  /// The executable's path with links resolved, as the process sees it; without the suffix that the
  /// kernel appends after an upgrade has replaced the file. Absent when the process has ended.
  [[nodiscard]] std::optional<std::string> executable() const;

  /// When the process was started, in ticks of the system's clock since the machine's start. Absent
  /// when it has ended.
  [[nodiscard]] std::optional<std::uint64_t> startTime() const;

  /// The path of the process's cgroup in the unified hierarchy; absent where there is none, or when
  /// the process has ended.
  [[nodiscard]] std::optional<std::string> cgroup() const;

  /// The inode of the socket behind descriptor `number` of the process; absent for anything else.
  [[nodiscard]] std::optional<ino_t> socketInode(int number) const;

  /// The numbers of the process's descriptors, in ascending order.
  [[nodiscard]] std::vector<int> descriptors() const;

 private:
  ProcessDirectory(pid_t pid, FileDescriptor directory, FileDescriptor descriptors) noexcept
      : pid_(pid), directory_(std::move(directory)), descriptors_(std::move(descriptors)) {}

  pid_t pid_;
  FileDescriptor directory_;
  FileDescriptor descriptors_;
};

/// The numbers of all processes that this one can see, newest last as numbers go.
[[nodiscard]] std::vector<pid_t> runningProcesses();

}  // namespace tandor
