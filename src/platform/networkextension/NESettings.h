#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/networkextension/NEAppProxyFlow.h"

namespace tandor {

/// One kind of flow that the platform is asked for. The numbers are the platform's published ones.
struct NENetworkRule {
  enum class Protocol : std::uint8_t { any = 0, tcp = 1, udp = 2 };
  enum class Direction : std::uint8_t { any = 0, inbound = 1, outbound = 2 };

  std::optional<NWHostEndpoint> remoteNetwork;  // absent: any
  std::uint8_t remotePrefix = 0;
  std::optional<NWHostEndpoint> localNetwork;  // absent: any
  std::uint8_t localPrefix = 0;
  Protocol protocol = Protocol::any;
  Direction direction = Direction::any;

  friend bool operator==(const NENetworkRule&, const NENetworkRule&) = default;
};

struct NETransparentProxyNetworkSettings {
  std::string tunnelRemoteAddress;
  std::vector<NENetworkRule> includedNetworkRules;

  friend bool operator==(const NETransparentProxyNetworkSettings&,
                         const NETransparentProxyNetworkSettings&) = default;
};

}  // namespace tandor
