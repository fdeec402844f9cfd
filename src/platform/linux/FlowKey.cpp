#include "platform/linux/FlowKey.h"

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
  return fmt::format("{}.{}.{}.{}", address >> 24, address >> 16 & 0xFF, address >> 8 & 0xFF,
                     address & 0xFF);
}

std::string IPv4Endpoint::description() const {
  return fmt::format("{}:{}", host(), port);
}

}  // namespace tandor
