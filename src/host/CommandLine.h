#pragma once

#include <expected>

#include "host/Options.h"

namespace tandor::host {

/// Reads the command line. What it cannot use, and what it answers by itself (--help, --version),
/// it has printed when it fails, with the exit code.
[[nodiscard]] std::expected<Options, int> parseCommandLine(int count, const char* const* arguments);

}  // namespace tandor::host
