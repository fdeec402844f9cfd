#pragma once

#include <cstdint>
#include <netinet/in.h>
#include <optional>
#include <string>
#include <string_view>
#include <sys/socket.h>

namespace tandor {

/// An address of a host with a port, IPv4 or IPv6.
class SocketAddress {
 public:
  SocketAddress() noexcept = default;
  explicit SocketAddress(const sockaddr_in& address) noexcept;
  /// The first `length` bytes at `address`, of either family.
  SocketAddress(const sockaddr& address, socklen_t length) noexcept;

  /// A numeric host (IPv4, or IPv6 with an optional %scope) with a port; absent for a name.
  [[nodiscard]] static std::optional<SocketAddress> fromNumeric(std::string_view host,
                                                                std::uint16_t port);

  [[nodiscard]] const sockaddr& get() const noexcept;
  [[nodiscard]] socklen_t length() const noexcept { return length_; }
  [[nodiscard]] int family() const noexcept { return storage_.sin6_family; }
  void setPort(std::uint16_t port) noexcept;
  [[nodiscard]] std::uint16_t port() const noexcept;
  /// HOST:PORT, with the brackets of an IPv6 host.
  [[nodiscard]] std::string description() const;
  /// The host in numbers, without the port.
  [[nodiscard]] std::string host() const;

 private:
  sockaddr_in6 storage_{};  // has room for either family
  socklen_t length_ = 0;
};

}  // namespace tandor
