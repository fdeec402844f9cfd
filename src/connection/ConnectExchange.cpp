#include "connection/ConnectExchange.h"

#include <fmt/format.h>

#include "platform/foundation/Text.h"

namespace tandor {

Data makeConnectRequest(std::string_view hostname, std::string_view port) {
  return Data::copying(fmt::format(
      "CONNECT {0}:{1} HTTP/1.1\r\nHost: {0}:{1}\r\nProxy-Connection: keep-alive\r\n\r\n", hostname,
      port));
}

bool isTunnelEstablished(const Data& reply) {
  return isUTF8(reply.bytes()) && reply.characters().contains("Connection Established");
}

}  // namespace tandor
