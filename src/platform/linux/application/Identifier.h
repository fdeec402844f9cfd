#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/application/ProcessDirectory.h"

namespace tandor {

/// The identifiers of the product's own programs, whose flows are never taken.
inline constexpr std::string_view hostProgramIdentifier = "com.tandor.host.app";
inline constexpr std::string_view providerProgramIdentifier = "com.tandor.host.tool";

/// Which application a process is an instance of: the Flatpak application in whose scope it is,
/// else snap.NAME for a snap, else the absolute path of its executable; the product's own two
/// programs have identifiers of their own. Absent when the process has ended.
[[nodiscard]] std::optional<std::string> applicationIdentifier(const ProcessDirectory& process);

/// The Flatpak application whose scope in a user's systemd the cgroup at `path` is, or lies below.
/// Absent elsewhere, and for what no Flatpak application can be called.
[[nodiscard]] std::optional<std::string> flatpakOfCgroup(std::string_view path);

/// The identifier of a process that runs the executable at `path`, outside of any sandbox.
[[nodiscard]] std::string identifierOfExecutable(std::string_view path);

}  // namespace tandor
