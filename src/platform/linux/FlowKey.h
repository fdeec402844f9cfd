#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <netinet/in.h>
#include <string>

namespace tandor {

/// An IPv4 address with a port, both in host byte order.
struct IPv4Endpoint {
  std::uint32_t address = 0;
  std::uint16_t port = 0;

  [[nodiscard]] static IPv4Endpoint of(const sockaddr_in& address) noexcept {
    return {ntohl(address.sin_addr.s_addr), ntohs(address.sin_port)};
  }
  [[nodiscard]] sockaddr_in socketAddress() const noexcept;
  /// The address in dotted decimals.
  [[nodiscard]] std::string host() const;
  /// HOST:PORT.
  [[nodiscard]] std::string description() const;

  friend bool operator==(const IPv4Endpoint&, const IPv4Endpoint&) = default;
};

/// What tells one flow from all others that live at the same time.
struct FlowKey {
  std::uint8_t protocol = 0;  // IPPROTO_TCP or IPPROTO_UDP
  IPv4Endpoint source;
  IPv4Endpoint destination;

  friend bool operator==(const FlowKey&, const FlowKey&) = default;
};

}  // namespace tandor

template <>
struct std::hash<tandor::FlowKey> {
  std::size_t operator()(const tandor::FlowKey& key) const noexcept {
    // Ports vary fastest, so they are mixed into every bit.
    std::uint64_t mix = std::uint64_t{key.source.address} << 32 | key.destination.address;
    mix ^= (std::uint64_t{key.source.port} << 24 | std::uint64_t{key.destination.port} << 8 |
            key.protocol) *
           0x9E3779B97F4A7C15U;
    mix ^= mix >> 31;
    mix *= 0xBF58476D1CE4E5B9U;
    return mix ^ mix >> 29;
  }
};
