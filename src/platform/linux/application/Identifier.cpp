#include "platform/linux/application/Identifier.h"

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

/// The name in the [Application] group of the file that every Flatpak sandbox shows its programs.
std::optional<std::string> flatpakIdentifier(const ProcessDirectory& process) {
  const auto info = process.readFileInside("/.flatpak-info");
  if (!info) return std::nullopt;
  std::string_view text(*info);
  bool isApplicationGroup = false;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    if (line.starts_with('[')) isApplicationGroup = line == "[Application]";
    constexpr std::string_view key = "name=";
    if (isApplicationGroup && line.starts_with(key)) return std::string(line.substr(key.size()));
  }
  return std::nullopt;
}

}  // namespace

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
  if (auto flatpak = flatpakIdentifier(process)) return flatpak;
  return identifierOfExecutable(*executable);
}

}  // namespace tandor
