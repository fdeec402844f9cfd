#pragma once

#include <expected>
#include <string>
#include <string_view>

#include "host/Failure.h"
#include "host/Settings.h"

namespace tandor::host {

inline constexpr std::string_view defaultConfigurationFile = "/etc/tandor/tandor.json";

/// Reads JSON with comments. Fails with file, line and key of the first thing that is wrong. A log
/// path that is not absolute counts from the file's folder.
[[nodiscard]] std::expected<Settings, Failure> parseConfigurationFile(std::string_view text,
                                                                      const std::string& path);

/// The same from the file at `path`.
[[nodiscard]] std::expected<Settings, Failure> readConfigurationFile(const std::string& path);

}  // namespace tandor::host
