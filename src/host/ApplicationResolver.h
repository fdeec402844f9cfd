#pragma once

#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/DesktopEntries.h"
#include "host/Failure.h"

namespace tandor::host {

/// A name that begins so is an identifier already, whatever is installed.
inline constexpr std::string_view identifierPrefix = "id:";

/// Folders in which applications are looked for, in order.
struct ApplicationPlaces {
  std::filesystem::path workingFolder;
  std::vector<std::filesystem::path> commands;
  std::vector<std::filesystem::path> desktopFiles;
  std::vector<std::filesystem::path> flatpaks;  // each holds a folder per application id
  std::vector<std::filesystem::path> snaps;     // each holds a folder per snap, and bin

  /// Those of this machine, for the user who called sudo, if somebody did.
  [[nodiscard]] static ApplicationPlaces ofThisMachine();
};

/// An application as the provider knows it.
struct ResolvedApplication {
  std::string name;  // as it was asked for
  std::string identifier;
  std::string warning;  // what the user should know; empty for nothing
};

/// Finds the identifier of an application that somebody names: a path, a command, a Flatpak
/// application id, a snap (NAME or snap.NAME), a desktop file or the name in it, or id:IDENTIFIER.
class ApplicationResolver {
 public:
  explicit ApplicationResolver(ApplicationPlaces places) : places_(std::move(places)) {}

  /// Fails with suggestions when there is no such application, and with the choices when several
  /// have the name.
  [[nodiscard]] std::expected<ResolvedApplication, Failure> resolve(std::string_view name) const;

 private:
  using Found = std::optional<std::expected<ResolvedApplication, Failure>>;

  [[nodiscard]] Found findFlatpak(std::string_view name) const;
  [[nodiscard]] Found findSnap(std::string_view name) const;
  [[nodiscard]] Found findCommand(std::string_view name) const;
  [[nodiscard]] Found findDesktopEntry(std::string_view name) const;
  [[nodiscard]] std::expected<ResolvedApplication, Failure> resolveEntry(
      const DesktopEntry& entry) const;
  [[nodiscard]] std::expected<ResolvedApplication, Failure> resolveProgram(
      const std::filesystem::path& program, int depth = 0) const;
  [[nodiscard]] std::optional<std::filesystem::path> commandNamed(std::string_view name) const;
  [[nodiscard]] Failure notFound(std::string_view name) const;

  ApplicationPlaces places_;
};

}  // namespace tandor::host
