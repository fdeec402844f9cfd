#pragma once

#include <expected>
#include <optional>
#include <string>
#include <sys/types.h>

#include "host/Failure.h"
#include "host/Settings.h"

namespace tandor::host {

/// What a provider was sent last, kept beside its control socket for the next update: a provider
/// does not tell its configuration.
struct SentConfiguration {
  pid_t provider;
  ProviderValues values;
};

/// Keeps it in a file that only its owner may read.
[[nodiscard]] std::expected<void, Failure> keepSent(const std::string& controlPath,
                                                    const SentConfiguration& sent);
/// What process `provider` was sent last; absent when that is not known.
[[nodiscard]] std::optional<SentConfiguration> lastSent(const std::string& controlPath,
                                                        pid_t provider);
void forgetSent(const std::string& controlPath);

}  // namespace tandor::host
