#include "platform/linux/application/ProcessDirectory.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
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
  const FileDescriptor file(::openat(directory_.get(), "stat", O_RDONLY | O_CLOEXEC));
  std::array<char, 1024> content;
  const ssize_t length = file.isOpen() ? ::read(file.get(), content.data(), content.size()) : -1;
  if (length <= 0) return std::nullopt;
  std::string_view rest(content.data(), static_cast<std::size_t>(length));
  // NUMBER (NAME) STATE ...: the name may hold anything, the start is the 20th field behind it.
  rest.remove_prefix(std::min(rest.rfind(')'), rest.size()));
  for (int field = 0; field < 20; ++field)
    rest.remove_prefix(std::min(rest.find(' '), rest.size() - 1) + 1);
  return parseNumber<std::uint64_t>(rest.substr(0, rest.find(' ')));
}

std::optional<std::string> ProcessDirectory::readFileInside(const std::string& path) const {
  const FileDescriptor file(
      ::openat(directory_.get(), ("root" + path).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (!file.isOpen()) return std::nullopt;
  constexpr std::size_t longest = std::size_t{64} * 1024;
  std::string content(longest, '\0');
  const ssize_t length = ::read(file.get(), content.data(), content.size());
  if (length < 0) return std::nullopt;
  content.resize(static_cast<std::size_t>(length));
  return content;
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
