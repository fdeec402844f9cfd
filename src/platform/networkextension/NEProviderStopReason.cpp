#include "platform/networkextension/NEProviderStopReason.h"

#include <array>
#include <string_view>

#include <fmt/format.h>

namespace tandor {

std::string description(NEProviderStopReason reason) {
  static constexpr std::array<std::string_view, 18> names = {
      "none",
      "userInitiated",
      "providerFailed",
      "noNetworkAvailable",
      "unrecoverableNetworkChange",
      "providerDisabled",
      "authenticationCanceled",
      "configurationFailed",
      "idleTimeout",
      "configurationDisabled",
      "configurationRemoved",
      "superceded",
      "userLogout",
      "userSwitch",
      "connectionFailed",
      "sleep",
      "appUpdate",
      "internalError",
  };
  const auto number = static_cast<std::int32_t>(reason);
  const bool isKnown = number >= 0 && static_cast<std::size_t>(number) < names.size();
  return fmt::format("{}({})", isKnown ? names.at(static_cast<std::size_t>(number)) : "unknown",
                     number);
}

}  // namespace tandor
