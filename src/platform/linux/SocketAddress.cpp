#include "platform/linux/SocketAddress.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstring>
#include <memory>
#include <netdb.h>

#include <fmt/format.h>

namespace tandor {

SocketAddress::SocketAddress(const sockaddr_in& address) noexcept
    : SocketAddress(reinterpret_cast<const sockaddr&>(address), sizeof address) {}

SocketAddress::SocketAddress(const sockaddr& address, socklen_t length) noexcept
    : length_(std::min(length, static_cast<socklen_t>(sizeof storage_))) {
  std::memcpy(&storage_, &address, length_);
}

std::optional<SocketAddress> SocketAddress::fromNumeric(std::string_view host, std::uint16_t port) {
  const std::string text(host);
  sockaddr_in ipv4{};
  if (::inet_pton(AF_INET, text.c_str(), &ipv4.sin_addr) == 1) {
    ipv4.sin_family = AF_INET;
    ipv4.sin_port = htons(port);
    return SocketAddress(ipv4);
  }
  if (!host.contains(':')) return std::nullopt;
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST;
  addrinfo* list = nullptr;
  if (::getaddrinfo(text.c_str(), nullptr, &hints, &list) != 0) return std::nullopt;
  const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(list, &::freeaddrinfo);
  SocketAddress address(*list->ai_addr, list->ai_addrlen);
  address.setPort(port);
  return address;
}

const sockaddr& SocketAddress::get() const noexcept {
  return reinterpret_cast<const sockaddr&>(storage_);
}

void SocketAddress::setPort(std::uint16_t port) noexcept {
  // The port stands at the same place in both families.
  reinterpret_cast<sockaddr_in&>(storage_).sin_port = htons(port);
}

std::uint16_t SocketAddress::port() const noexcept {
  return ntohs(reinterpret_cast<const sockaddr_in&>(storage_).sin_port);
}

std::string SocketAddress::description() const {
  return fmt::format(fmt::runtime(family() == AF_INET6 ? "[{}]:{}" : "{}:{}"), host(), port());
}

std::string SocketAddress::host() const {
  std::array<char, INET6_ADDRSTRLEN> text{};
  const void* address = family() == AF_INET6
                            ? static_cast<const void*>(&storage_.sin6_addr)
                            : &reinterpret_cast<const sockaddr_in&>(storage_).sin_addr;
  if (::inet_ntop(family(), address, text.data(), text.size()) == nullptr) return {};
  return text.data();
}

}  // namespace tandor
