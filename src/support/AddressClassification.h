#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/networkextension/NEAppProxyFlow.h"

namespace tandor {

/// The dotted IPv4 text as a number in numeric order (the first part is the most significant byte).
/// Lenient: pieces between dots that are empty or no numbers from 0 to 255 are dropped; absent
/// unless exactly four numbers remain. So a name such as web.10.0.0.1 counts as that address.
[[nodiscard]] std::optional<std::uint32_t> ipv4ToUInt32(std::string_view text) noexcept;

/// Whether the endpoint's host reads as a local, private or otherwise special-purpose IPv4 address
/// (RFC 6890 and multicast). False for every IPv6 literal and ordinary name.
[[nodiscard]] bool isPrivateNetwork(const NWHostEndpoint& endpoint) noexcept;

/// Whether the endpoint's host is an IPv6 address literal, as inet_pton reads it.
[[nodiscard]] bool isIpv6(const NWHostEndpoint& endpoint) noexcept;

}  // namespace tandor
