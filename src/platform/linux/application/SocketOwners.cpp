#include "platform/linux/application/SocketOwners.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <ranges>
#include <sstream>
#include <unordered_set>
#include <utility>

#include "platform/linux/application/Identifier.h"

namespace tandor {
namespace {

constexpr std::size_t mostRecents = 32;
constexpr std::size_t mostDescriptors = 32;
/// Descriptors behind the highest known one: a process that opens one socket after the other.
constexpr int nextDescriptors = 2;
/// Processes with the latest numbers: a command that was started to make this very connection.
constexpr int newestProcesses = 6;
/// A cgroup of more processes is no hint.
constexpr std::size_t largestCgroup = 32;
constexpr int quickLooks = 160;

FileDescriptor openCgroupRoot() {
  std::ifstream mounts("/proc/self/mountinfo");
  for (std::string line; std::getline(mounts, line);) {
    // ID PARENT MAJOR:MINOR ROOT MOUNTPOINT OPTIONS [FIELDS] - TYPE SOURCE SUPEROPTIONS
    if (!line.contains(" - cgroup2 ")) continue;
    std::istringstream fields(line);
    std::string field;
    for (int index = 0; index < 5; ++index) fields >> field;
    return FileDescriptor(::open(field.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  }
  return {};
}

/// The number that the kernel gave to the latest process, from the one file that tells it cheaply.
std::optional<pid_t> latestProcess() {
  std::ifstream load("/proc/loadavg");
  std::string field;
  pid_t pid = 0;
  for (int index = 0; index < 4; ++index) load >> field;
  if (load >> pid) return pid;
  return std::nullopt;
}

}  // namespace

class SocketOwners::Budget {
 public:
  [[nodiscard]] bool isLeft() const noexcept { return looks_ > 0; }
  [[nodiscard]] bool holds(const ProcessDirectory& process, int descriptor, ino_t inode) noexcept {
    --looks_;
    return process.socketInode(descriptor) == inode;
  }

 private:
  int looks_ = quickLooks;
};

SocketOwners::SocketOwners() : cgroupRoot_(openCgroupRoot()) {}

std::optional<SocketOwner> SocketOwners::findQuickly(ino_t inode, std::uint64_t cgroup) {
  Budget budget;
  if (auto owner = findAmongRecent(inode, budget)) return owner;
  std::vector<pid_t> candidates = processesOfCgroup(cgroup);
  if (const auto latest = latestProcess()) {
    for (pid_t pid = *latest; pid > *latest - newestProcesses && pid > 0; --pid)
      candidates.push_back(pid);
  }
  return findAmong(candidates, inode, budget);
}

std::optional<SocketOwner> SocketOwners::findAmongRecent(ino_t inode, Budget& budget) {
  for (auto recent = recents_.begin(); recent != recents_.end() && budget.isLeft(); ++recent) {
    const ProcessDirectory& process = recent->directory;
    for (const int descriptor : recent->descriptors | std::views::reverse)
      if (budget.holds(process, descriptor, inode)) return found(recent, descriptor);
    if (recent->descriptors.empty()) continue;
    const int highest = std::ranges::max(recent->descriptors);
    for (int next = highest + 1; next <= highest + nextDescriptors; ++next)
      if (budget.holds(process, next, inode)) return found(recent, next);
  }
  return std::nullopt;
}

std::optional<SocketOwner> SocketOwners::findAmong(const std::vector<pid_t>& candidates,
                                                   ino_t inode, Budget& budget) {
  for (const pid_t pid : candidates | std::views::reverse) {
    if (!budget.isLeft()) return std::nullopt;
    auto process = ProcessDirectory::open(pid);
    if (!process) continue;
    for (const int descriptor : process->descriptors() | std::views::reverse) {
      if (!budget.isLeft()) return std::nullopt;
      if (budget.holds(*process, descriptor, inode)) return confirm({pid, descriptor}, inode);
    }
  }
  return std::nullopt;
}

std::optional<SocketOwner> SocketOwners::confirm(Place place, ino_t inode) {
  auto known = std::ranges::find_if(recents_, [&](const Recent& recent) {
    return recent.directory.pid() == place.pid &&
           recent.directory.socketInode(place.descriptor) == inode;
  });
  if (known == recents_.end()) {
    auto directory = ProcessDirectory::open(place.pid);
    if (!directory || directory->socketInode(place.descriptor) != inode) return std::nullopt;
    known = remember(std::move(*directory));
  }
  return found(known, place.descriptor);
}

std::optional<SocketOwner> SocketOwners::identify(const Connector& connector) {
  static const auto nanosecondsATick =
      std::uint64_t{1'000'000'000} / static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));
  const auto isMeant = [&](Recent& recent) {
    if (recent.directory.pid() != connector.pid) return false;
    if (!recent.startTime) recent.startTime = recent.directory.startTime();
    return recent.startTime == connector.startTime / nanosecondsATick;
  };
  auto recent = std::ranges::find_if(recents_, isMeant);
  if (recent == recents_.end()) {
    auto directory = ProcessDirectory::open(connector.pid);
    if (!directory) return std::nullopt;
    recent = remember(std::move(*directory));
    if (!isMeant(*recent)) {
      recents_.erase(recent);
      return std::nullopt;
    }
  } else if (recent->program == connector.program) {
    return SocketOwner{connector.pid, recent->identifier};
  }
  auto owner = identify(recent);
  if (owner) recent->program = connector.program;
  return owner;
}

SocketOwners::Recents::iterator SocketOwners::remember(ProcessDirectory directory) {
  recents_.push_front({std::move(directory), {}, nullptr, {}, {}, {}});
  if (recents_.size() > mostRecents) recents_.pop_back();
  return recents_.begin();
}

std::optional<SocketOwner> SocketOwners::found(Recents::iterator recent, int descriptor) {
  auto owner = identify(recent);
  if (!owner) return std::nullopt;
  auto& descriptors = recent->descriptors;
  std::erase(descriptors, descriptor);
  if (descriptors.size() >= mostDescriptors) descriptors.erase(descriptors.begin());
  descriptors.push_back(descriptor);
  return owner;
}

std::optional<SocketOwner> SocketOwners::identify(Recents::iterator recent) {
  auto executable = recent->directory.executable();
  if (!executable || recent->identifier == nullptr || *executable != recent->executable) {
    auto identifier = applicationIdentifier(recent->directory);
    if (!executable || !identifier) {
      recents_.erase(recent);
      return std::nullopt;
    }
    recent->executable = std::move(*executable);
    recent->identifier = std::make_shared<const std::string>(std::move(*identifier));
  }
  recents_.splice(recents_.begin(), recents_, recent);
  return SocketOwner{recent->directory.pid(), recent->identifier};
}

std::vector<pid_t> SocketOwners::processesOfCgroup(std::uint64_t cgroup) const {
  std::vector<pid_t> processes;
  if (cgroup == 0 || !cgroupRoot_.isOpen()) return processes;
  constexpr int kernfsHandle = 0xFE;  // FILEID_KERNFS: the handle is the cgroup's number
  alignas(file_handle) std::array<std::byte, sizeof(file_handle) + sizeof cgroup> room{};
  auto& handle = *reinterpret_cast<file_handle*>(room.data());
  handle.handle_bytes = sizeof cgroup;
  handle.handle_type = kernfsHandle;
  std::memcpy(handle.f_handle, &cgroup, sizeof cgroup);
  const FileDescriptor folder(
      ::open_by_handle_at(cgroupRoot_.get(), &handle, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder.isOpen()) return processes;
  std::ifstream list("/proc/self/fd/" + std::to_string(folder.get()) + "/cgroup.procs");
  for (pid_t pid = 0; list >> pid;) {
    if (processes.size() >= largestCgroup) return {};
    processes.push_back(pid);
  }
  return processes;
}

SocketOwners::Places SocketOwners::searchEverywhere(const std::vector<ino_t>& inodes) {
  Places places;
  std::unordered_set<ino_t> missing(inodes.begin(), inodes.end());
  // The newest first: an old daemon's sockets are among the recent places soon.
  for (const pid_t pid : runningProcesses() | std::views::reverse) {
    const auto process = ProcessDirectory::open(pid);
    if (!process) continue;
    for (const int descriptor : process->descriptors() | std::views::reverse) {
      const auto inode = process->socketInode(descriptor);
      if (!inode || missing.erase(*inode) == 0) continue;
      places.emplace(*inode, Place{pid, descriptor});
      if (missing.empty()) return places;
    }
  }
  return places;
}

}  // namespace tandor
