#include <cstdlib>
#include <pwd.h>
#include <string_view>
#include <system_error>
#include <unistd.h>

#include "host/ApplicationResolver.h"

namespace tandor::host {
namespace {

namespace fs = std::filesystem;

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? std::string() : std::string(value);
}

/// Appends the absolute folders of a list that is separated by colons.
void appendFolders(std::vector<fs::path>& folders, std::string_view list,
                   std::string_view below = {}) {
  while (!list.empty()) {
    const std::string_view folder = list.substr(0, list.find(':'));
    list.remove_prefix(std::min(folder.size() + 1, list.size()));
    if (folder.starts_with('/'))
      folders.push_back(below.empty() ? folder : fs::path(folder) / below);
  }
}

/// The home of the person at the keyboard, who may have called sudo.
fs::path homeFolder() {
  const std::string caller = environment("SUDO_USER");
  if (!caller.empty() && ::geteuid() == 0)
    if (const passwd* entry = ::getpwnam(caller.c_str()); entry != nullptr) return entry->pw_dir;
  return environment("HOME");
}

}  // namespace

ApplicationPlaces ApplicationPlaces::ofThisMachine() {
  ApplicationPlaces places;
  std::error_code ignored;
  places.workingFolder = fs::current_path(ignored);
  appendFolders(places.commands, environment("PATH"));
  appendFolders(places.commands,
                "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin:/usr/games");
  const fs::path home = homeFolder();
  if (!home.empty()) {
    places.commands.push_back(home / ".local/bin");
    places.desktopFiles.push_back(home / ".local/share/applications");
    places.desktopFiles.push_back(home / ".local/share/flatpak/exports/share/applications");
    places.flatpaks.push_back(home / ".local/share/flatpak/app");
  }
  appendFolders(places.desktopFiles, environment("XDG_DATA_DIRS"), "applications");
  appendFolders(places.desktopFiles,
                "/usr/local/share:/usr/share:/var/lib/flatpak/exports/share:/var/lib/snapd/desktop",
                "applications");
  places.flatpaks.emplace_back("/var/lib/flatpak/app");
  places.snaps = {"/snap", "/var/lib/snapd/snap"};
  return places;
}

}  // namespace tandor::host
