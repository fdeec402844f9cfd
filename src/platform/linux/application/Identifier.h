#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/application/ProcessDirectory.h"

namespace tandor {

/// The identifiers of the product's own programs, whose flows are never taken.
inline constexpr std::string_view hostProgramIdentifier = "com.tandor.host.app";
inline constexpr std::string_view providerProgramIdentifier = "com.tandor.host.tool";

/// Which application a process is an instance of: its Flatpak application id, else snap.NAME for a
/// snap, else the absolute path of its executable; the product's own two programs have identifiers
/// of their own. Absent when the process has ended.
[[nodiscard]] std::optional<std::string> applicationIdentifier(const ProcessDirectory& process);

/// The identifier of a process that runs the executable at `path`, outside of any sandbox.
[[nodiscard]] std::string identifierOfExecutable(std::string_view path);

}  // namespace tandor
