#include "support/AddressClassification.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <netinet/in.h>
#include <ranges>

#include "platform/foundation/Text.h"

namespace tandor {
namespace {

/// A decimal number from 0 to 255 with an optional sign; of the negative ones only zero fits.
std::optional<std::uint32_t> parsePiece(std::string_view piece) noexcept {
  std::uint64_t limit = 255;
  if (piece.starts_with('+')) {
    piece.remove_prefix(1);
  } else if (piece.starts_with('-')) {
    piece.remove_prefix(1);
    limit = 0;
  }
  const auto value = parseDecimal(piece, limit);
  if (!value) return std::nullopt;
  return static_cast<std::uint32_t>(*value);
}

struct Network {
  std::uint32_t address;
  std::uint32_t prefix;

  [[nodiscard]] constexpr bool contains(std::uint32_t candidate) const noexcept {
    return (candidate ^ address) >> (32 - prefix) == 0;
  }
};

constexpr std::uint32_t ipv4(std::uint32_t first, std::uint32_t second) noexcept {
  return first << 24 | second << 16;
}

constexpr std::array<Network, 10> privateNetworks = {{
    {ipv4(0, 0), 8},
    {ipv4(10, 0), 8},
    {ipv4(100, 64), 10},
    {ipv4(127, 0), 8},
    {ipv4(169, 254), 16},
    {ipv4(172, 16), 12},
    {ipv4(192, 168), 16},
    {ipv4(198, 18), 15},
    {ipv4(224, 0), 4},
    {0xFFFFFFFF, 32},
}};

}  // namespace

std::optional<std::uint32_t> ipv4ToUInt32(std::string_view text) noexcept {
  std::uint32_t address = 0;
  std::size_t count = 0;
  for (const auto piece : std::views::split(text, '.')) {
    // A number beyond the fourth makes the text no address, so what it shifts out is of no account.
    if (const auto number = parsePiece(std::string_view(piece.begin(), piece.end()))) {
      address = address << 8 | *number;
      ++count;
    }
  }
  if (count != 4) return std::nullopt;
  return address;
}

bool isPrivateNetwork(const NWHostEndpoint& endpoint) noexcept {
  const auto address = ipv4ToUInt32(endpoint.hostname);
  return address && std::ranges::any_of(privateNetworks, [&](const Network& network) {
           return network.contains(*address);
         });
}

bool isIpv6(const NWHostEndpoint& endpoint) noexcept {
  in6_addr address{};
  return endpoint.hostname.contains(':') &&
         ::inet_pton(AF_INET6, endpoint.hostname.c_str(), &address) == 1;
}

}  // namespace tandor
