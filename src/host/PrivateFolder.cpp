#include "host/PrivateFolder.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <limits>
#include <optional>
#include <system_error>
#include <unistd.h>

#include <fmt/format.h>

#include "platform/foundation/Text.h"

namespace tandor::host {
namespace {

namespace fs = std::filesystem;

/// Room for the name of a socket below the folder.
constexpr std::size_t longestFolder = 80;

/// The number of the process that made the folder; absent for a folder of another name.
std::optional<pid_t> makerOf(const fs::path& folder, std::string_view name) {
  const std::string text = folder.filename().string();
  if (!text.starts_with(std::string(name) + "-")) return std::nullopt;
  std::string_view number = std::string_view(text).substr(name.size() + 1);
  number = number.substr(0, number.find('-'));
  const auto pid = parseDecimal(number, std::numeric_limits<pid_t>::max());
  if (!pid) return std::nullopt;
  return static_cast<pid_t>(*pid);
}

bool isRunning(pid_t process) {
  return ::kill(process, 0) == 0 || errno == EPERM;
}

/// Calls `visit` with each folder of this name and whether its maker still runs.
template <typename Visit>
void forEachFolder(const fs::path& place, std::string_view name, Visit visit) {
  std::error_code error;
  std::vector<fs::path> folders;
  for (fs::directory_iterator entry(place, error), end; !error && entry != end;
       entry.increment(error))
    folders.push_back(entry->path());
  for (const fs::path& folder : folders)
    if (const auto maker = makerOf(folder, name)) visit(folder, isRunning(*maker));
}

}  // namespace

std::expected<PrivateFolder, Failure> PrivateFolder::make(std::string_view name,
                                                          const std::vector<fs::path>& places) {
  for (const fs::path& place : places) {
    std::string pattern = (place / fmt::format("{}-{}-XXXXXX", name, ::getpid())).string();
    if (pattern.size() > longestFolder || ::mkdtemp(pattern.data()) == nullptr) continue;
    PrivateFolder folder{fs::path(pattern)};
    forEachFolder(place, name, [](const fs::path& other, bool isLive) {
      std::error_code ignored;
      if (!isLive) fs::remove_all(other, ignored);
    });
    return folder;
  }
  return fail("cannot make a folder of its own for sockets",
              "set TMPDIR to a folder that you may write to, with a short path");
}

PrivateFolder::~PrivateFolder() {
  std::error_code ignored;
  if (!path_.empty()) fs::remove_all(path_, ignored);
}

std::vector<fs::path> runtimePlaces() {
  std::vector<fs::path> places;
  if (::geteuid() == 0) places.emplace_back("/run");
  for (const char* variable : {"XDG_RUNTIME_DIR", "TMPDIR"})
    if (const char* folder = std::getenv(variable); folder != nullptr && *folder == '/')
      places.emplace_back(folder);
  places.emplace_back("/tmp");
  return places;
}

std::vector<fs::path> liveFolders(const fs::path& place, std::string_view name) {
  std::vector<fs::path> live;
  forEachFolder(place, name, [&](const fs::path& folder, bool isLive) {
    if (isLive) live.push_back(folder);
  });
  return live;
}

}  // namespace tandor::host
