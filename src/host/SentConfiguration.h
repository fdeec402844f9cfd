#pragma once

#include <expected>
#include <optional>
#include <string>
#include <sys/types.h>

#include "host/Failure.h"
#include "host/Settings.h"

namespace tandor::host {

/// Keeps what process `provider` was sent last for the next update, since a provider does not tell
/// its configuration: beside its control socket, in a file that only its owner may read.
[[nodiscard]] std::expected<void, Failure> keepSent(const std::string& controlPath, pid_t provider,
                                                    const ProviderValues& values);
/// What process `provider` was sent last; absent when that is not known.
[[nodiscard]] std::optional<ProviderValues> lastSent(const std::string& controlPath,
                                                     pid_t provider);
void forgetSent(const std::string& controlPath);

}  // namespace tandor::host
