#include "platform/linux/application/Identifier.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <system_error>

namespace tandor {
namespace {

namespace fs = std::filesystem;

/// The installed programs of this product, next to whichever of them this process runs.
struct OwnPrograms {
  std::string host;
  std::string provider;
};

const OwnPrograms& ownPrograms() {
  static const OwnPrograms programs = [] {
    std::error_code ignored;
    const fs::path self = fs::read_symlink("/proc/self/exe", ignored);
    const fs::path folder = self.parent_path();
    const auto firstExisting = [&](std::string_view name, const auto& folders) -> std::string {
      for (const fs::path& candidate : folders) {
        const fs::path path = fs::canonical(candidate / name, ignored);
        if (!ignored) return path;
      }
      return {};
    };
    // The daemon is installed in a folder of system programs, the command beside it or in bin.
    const std::array folders = {folder, folder / "../bin", folder / "../sbin",
                                folder / "../libexec/tandor"};
    return OwnPrograms{firstExisting("tandor", folders), firstExisting("tandor-provider", folders)};
  }();
  return programs;
}

/// Takes the first name off a path, with the slash before it.
std::string_view takeName(std::string_view& path) {
  path.remove_prefix(path.starts_with('/') ? 1 : 0);
  const std::string_view name = path.substr(0, path.find('/'));
  path.remove_prefix(name.size());
  return name;
}

bool cutPrefix(std::string_view& text, std::string_view prefix) {
  if (!text.starts_with(prefix)) return false;
  text.remove_prefix(prefix.size());
  return true;
}

bool cutSuffix(std::string_view& text, std::string_view suffix) {
  if (!text.ends_with(suffix)) return false;
  text.remove_suffix(suffix.size());
  return true;
}

/// Whether `text` can be the id of a Flatpak application: three or more words of the Latin
/// alphabet, digits, underscore and hyphen. So neither a path nor a snap is called.
bool isFlatpakIdentifier(std::string_view text) {
  constexpr std::size_t longest = 255;
  constexpr std::string_view allowed =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-.";
  return text.size() <= longest && std::ranges::count(text, '.') >= 2 && !text.contains("..") &&
         !text.starts_with('.') && !text.ends_with('.') &&
         text.find_first_not_of(allowed) == std::string_view::npos;
}

}  // namespace

std::optional<std::string> flatpakOfCgroup(std::string_view path) {
  // /user.slice/user-UID.slice/user@UID.service[/SLICE...]/app-flatpak-ID-NUMBER.scope; the first
  // word came later, and so did hyphens of the ID that are written \x2d.
  if (takeName(path) != "user.slice") return std::nullopt;
  std::string_view user = takeName(path);
  if (!cutPrefix(user, "user-") || !cutSuffix(user, ".slice")) return std::nullopt;
  std::string_view manager = takeName(path);
  if (!cutPrefix(manager, "user@") || !cutSuffix(manager, ".service") || manager != user)
    return std::nullopt;
  std::string_view scope = takeName(path);
  while (scope.ends_with(".slice")) scope = takeName(path);
  cutPrefix(scope, "app-");
  if (!cutPrefix(scope, "flatpak-") || !cutSuffix(scope, ".scope")) return std::nullopt;
  const std::size_t hyphen = scope.rfind('-');
  if (hyphen == std::string_view::npos) return std::nullopt;

  std::string identifier(scope.substr(0, hyphen));
  constexpr std::string_view escaped = "\\x2d";
  for (std::size_t at = 0; (at = identifier.find(escaped, at)) != std::string::npos; ++at)
    identifier.replace(at, escaped.size(), "-");
  if (!isFlatpakIdentifier(identifier) || identifier == hostProgramIdentifier ||
      identifier == providerProgramIdentifier)
    return std::nullopt;
  return identifier;
}

std::string identifierOfExecutable(std::string_view path) {
  constexpr std::string_view snaps = "/snap/";
  if (path.starts_with(snaps)) {
    const std::string_view rest = path.substr(snaps.size());
    if (const std::size_t end = rest.find('/'); end != std::string_view::npos && end > 0)
      return "snap." + std::string(rest.substr(0, end));
  }
  const OwnPrograms& own = ownPrograms();
  if (path == own.host) return std::string(hostProgramIdentifier);
  if (path == own.provider) return std::string(providerProgramIdentifier);
  return std::string(path);
}

std::optional<std::string> applicationIdentifier(const ProcessDirectory& process) {
  const auto executable = process.executable();
  if (!executable) return std::nullopt;
  // Not by the file that a sandbox shows its programs: anybody can make a root directory with one.
  if (const auto cgroup = process.cgroup())
    if (auto flatpak = flatpakOfCgroup(*cgroup)) return flatpak;
  return identifierOfExecutable(*executable);
}

}  // namespace tandor
