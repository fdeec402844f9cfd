#pragma once

#include <cstdint>
#include <optional>

#include "platform/network/NWInterface.h"

namespace tandor {

/// How an outbound connection is to be made.
struct NWParameters {
  enum class Transport : std::uint8_t { tcp, udp };

  Transport transport = Transport::tcp;
  /// The one interface that the connection may use; absent means no requirement.
  std::optional<NWInterface> requiredInterface;

  [[nodiscard]] static NWParameters tcp() { return {Transport::tcp, std::nullopt}; }
  [[nodiscard]] static NWParameters udp() { return {Transport::udp, std::nullopt}; }
};

}  // namespace tandor
