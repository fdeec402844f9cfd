#include "platform/linux/FlowKey.h"

#include <array>
#include <charconv>
#include <netinet/in.h>

#include <fmt/format.h>

namespace tandor {

sockaddr_in IPv4Endpoint::socketAddress() const noexcept {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  result.sin_addr.s_addr = htonl(address);
  result.sin_port = htons(port);
  return result;
}

std::string IPv4Endpoint::host() const {
  std::array<char, INET_ADDRSTRLEN> text{};
  char* end = text.data();
  for (int shift = 24; shift >= 0; shift -= 8) {
    end = std::to_chars(end, text.data() + text.size(), address >> shift & 0xFF).ptr;
    if (shift > 0) *end++ = '.';
  }
  return {text.data(), end};
}

std::string IPv4Endpoint::description() const {
  return fmt::format("{}:{}", host(), port);
}

}  // namespace tandor
