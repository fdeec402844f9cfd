#pragma once

#include <cstdint>
#include <string>

namespace tandor {

/// Why the platform stops a provider. The numbers are the platform's published ones.
enum class NEProviderStopReason : std::int32_t {
  none = 0,
  userInitiated,
  providerFailed,
  noNetworkAvailable,
  unrecoverableNetworkChange,
  providerDisabled,
  authenticationCanceled,
  configurationFailed,
  idleTimeout,
  configurationDisabled,
  configurationRemoved,
  superceded,
  userLogout,
  userSwitch,
  connectionFailed,
  sleep,
  appUpdate,
  internalError,
};

/// The case's name with its number, such as userInitiated(1); a number without a case is
/// unknown(N).
[[nodiscard]] std::string description(NEProviderStopReason reason);

}  // namespace tandor
