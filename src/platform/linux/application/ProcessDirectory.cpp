#include "platform/linux/application/ProcessDirectory.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <span>
#include <string_view>
#include <unistd.h>
#include <utility>

#include <climits>

namespace tandor {
namespace {

template <typename Number>
std::optional<Number> parseNumber(std::string_view text) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

struct CloseDirectory {
  void operator()(DIR* directory) const noexcept { ::closedir(directory); }
};

/// The entries of an open directory whose names are numbers.
std::vector<int> numberedEntries(FileDescriptor directory) {
  std::vector<int> numbers;
  if (!directory.isOpen()) return numbers;
  const std::unique_ptr<DIR, CloseDirectory> stream(::fdopendir(directory.release()));
  if (stream == nullptr) return numbers;
  while (const dirent* entry = ::readdir(stream.get()))
    if (const auto number = parseNumber<int>(entry->d_name)) numbers.push_back(*number);
  std::ranges::sort(numbers);
  return numbers;
}

/// What the kernel says in the file `name` of a process, as far as it fits; empty when it says
/// nothing.
std::string_view readInto(std::span<char> room, const FileDescriptor& directory, const char* name) {
  const FileDescriptor file(::openat(directory.get(), name, O_RDONLY | O_CLOEXEC));
  const ssize_t length = file.isOpen() ? ::read(file.get(), room.data(), room.size()) : -1;
  return {room.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
}

}  // namespace

std::optional<ProcessDirectory> ProcessDirectory::open(pid_t pid) {
  FileDescriptor directory(
      ::open(("/proc/" + std::to_string(pid)).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!directory.isOpen()) return std::nullopt;
  FileDescriptor descriptors(::openat(directory.get(), "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!descriptors.isOpen()) return std::nullopt;
  return ProcessDirectory(pid, std::move(directory), std::move(descriptors));
}

std::optional<std::string> ProcessDirectory::executable() const {
  std::array<char, PATH_MAX> target;
  const ssize_t length = ::readlinkat(directory_.get(), "exe", target.data(), target.size());
  if (length <= 0) return std::nullopt;
  std::string_view path(target.data(), static_cast<std::size_t>(length));
  constexpr std::string_view replaced = " (deleted)";
  if (path.ends_with(replaced)) path.remove_suffix(replaced.size());
  return std::string(path);
}

std::optional<std::uint64_t> ProcessDirectory::startTime() const {
  std::array<char, 1024> content;
  std::string_view rest = readInto(content, directory_, "stat");
  if (rest.empty()) return std::nullopt;
  // NUMBER (NAME) STATE ...: the name may hold anything, the start is the 20th field behind it.
  rest.remove_prefix(std::min(rest.rfind(')'), rest.size()));
  for (int field = 0; field < 20; ++field)
    rest.remove_prefix(std::min(rest.find(' '), rest.size() - 1) + 1);
  return parseNumber<std::uint64_t>(rest.substr(0, rest.find(' ')));
}

std::optional<std::string> ProcessDirectory::cgroup() const {
  std::array<char, std::size_t{8} * 1024> content;
  std::string_view text = readInto(content, directory_, "cgroup");
  // A line for each hierarchy, NUMBER:CONTROLLERS:PATH; the unified one is number 0 without any.
  constexpr std::string_view unified = "0::";
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    if (line.starts_with(unified)) return std::string(line.substr(unified.size()));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
  }
  return std::nullopt;
}

std::optional<ino_t> ProcessDirectory::socketInode(int number) const {
  std::array<char, 16> name{};
  *std::to_chars(name.data(), name.data() + name.size() - 1, number).ptr = '\0';
  std::array<char, 64> target;
  const ssize_t length =
      ::readlinkat(descriptors_.get(), name.data(), target.data(), target.size());
  if (length <= 0) return std::nullopt;
  std::string_view link(target.data(), static_cast<std::size_t>(length));
  constexpr std::string_view prefix = "socket:[";
  if (!link.starts_with(prefix) || !link.ends_with(']')) return std::nullopt;
  link.remove_prefix(prefix.size());
  link.remove_suffix(1);
  return parseNumber<ino_t>(link);
}

std::vector<int> ProcessDirectory::descriptors() const {
  // A new open file description: reading a shared one would move its position for good.
  return numberedEntries(
      FileDescriptor(::openat(directory_.get(), "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
}

std::vector<pid_t> runningProcesses() {
  return numberedEntries(FileDescriptor(::open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
}

}  // namespace tandor
