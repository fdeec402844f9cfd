#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "platform/foundation/Data.h"

namespace tandor {

/// The request that asks an HTTP proxy for a tunnel (RFC 9110, 9.3.6): request line, Host and
/// Proxy-Connection, blank line. Host name and port are inserted as they are.
[[nodiscard]] Data makeConnectRequest(std::string_view hostname, std::string_view port);

/// Whether the first piece of a proxy's reply shows an established tunnel: UTF-8 text that contains
/// the customary phrase. The status code is not looked at.
[[nodiscard]] bool isTunnelEstablished(const Data& reply);

}  // namespace tandor
