#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tandor::host {

/// What a desktop file says of the application that it starts.
struct DesktopEntry {
  std::string id;                  // the file's name without .desktop
  std::vector<std::string> names;  // as menus show it, in every language that the file has
  std::string program;             // first word of the command that it runs; path or command name
  std::string flatpak;             // Flatpak application id; empty for none
  std::string snap;                // name of the snap; empty for none

  /// Reads the text of the file; absent when it starts no application.
  [[nodiscard]] static std::optional<DesktopEntry> parse(std::string_view text, std::string id);
};

/// The entries in and below `folders`; of several with the same id the first counts.
[[nodiscard]] std::vector<DesktopEntry> readDesktopEntries(
    const std::vector<std::filesystem::path>& folders);

}  // namespace tandor::host
