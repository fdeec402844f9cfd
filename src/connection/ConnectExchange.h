#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/foundation/Data.h"

namespace tandor {

/// Whether a server name may become part of a request and of the log: letters, digits, "-", "_",
/// ".", ":", and bytes from 0x80 on. An application may put anything into its hello.
[[nodiscard]] bool isHostName(std::string_view name) noexcept;

/// The request that asks an HTTP proxy for a tunnel (RFC 9110, 9.3.6): request line, Host and
/// Proxy-Connection, blank line. Host name and port are inserted as they are.
[[nodiscard]] Data makeConnectRequest(std::string_view hostname, std::string_view port);

/// Whether the first piece of a proxy's reply shows an established tunnel: UTF-8 text that contains
/// the customary phrase. The status code is not looked at.
[[nodiscard]] bool isTunnelEstablished(const Data& reply);

/// How a proxy's reply to CONNECT is judged.
enum class ConnectReply : std::uint8_t {
  phrase,  // by the customary phrase in its first piece
  status,  // by the status code of its head
};

/// Reads the head of a proxy's reply piece by piece (RFC 9112, sections 2 to 4): HTTP/1.0 or 1.1,
/// any status code of 2xx, header fields up to the blank line, lines ended by CR LF or LF alone.
/// Does no input or output.
class ConnectReplyReader {
 public:
  static constexpr std::size_t longestHead = std::size_t{16} * 1024;
  enum class Outcome : std::uint8_t { indeterminate, established, refused };

  /// Takes the next piece of the reply. Final once it is not indeterminate.
  [[nodiscard]] Outcome consume(const Data& piece);
  /// What came behind the blank line of an established tunnel: the tunnel's first bytes.
  [[nodiscard]] const Data& behind() const noexcept { return behind_; }

 private:
  std::string head_;
  Data behind_;
};

}  // namespace tandor
