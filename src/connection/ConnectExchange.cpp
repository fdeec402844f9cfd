#include "connection/ConnectExchange.h"

#include <algorithm>

#include "platform/foundation/Text.h"

namespace tandor {

bool isHostName(std::string_view name) noexcept {
  return std::ranges::all_of(name, [](char character) {
    const auto byte = static_cast<unsigned char>(character);
    return (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') ||
           (byte >= 'a' && byte <= 'z') || byte == '-' || byte == '_' || byte == '.' ||
           byte == ':' || byte >= 0x80;
  });
}

Data makeConnectRequest(std::string_view hostname, std::string_view port) {
  const std::string endpoint = std::string(hostname).append(":").append(port);
  constexpr std::size_t lengthOfTheRest = 64;
  std::string request;
  request.reserve(2 * endpoint.size() + lengthOfTheRest);
  request.append("CONNECT ").append(endpoint).append(" HTTP/1.1\r\nHost: ").append(endpoint);
  return Data::copying(request.append("\r\nProxy-Connection: keep-alive\r\n\r\n"));
}

bool isTunnelEstablished(const Data& reply) {
  return isUTF8(reply.bytes()) && reply.characters().contains("Connection Established");
}

namespace {

/// Whether a whole status line tells of success.
bool isSuccess(std::string_view statusLine) {
  constexpr std::size_t versionLength = 8;
  constexpr std::size_t codeLength = 3;
  const std::string_view version = statusLine.substr(0, versionLength);
  if (version != "HTTP/1.1" && version != "HTTP/1.0") return false;
  const std::string_view rest = statusLine.substr(versionLength);
  if (!rest.starts_with(' ')) return false;
  const std::string_view code = rest.substr(1, codeLength);
  const std::string_view reason = rest.substr(1 + code.size());
  return parseDecimal(code, 299).value_or(0) >= 200 && (reason.empty() || reason.front() == ' ');
}

}  // namespace

ConnectReplyReader::Outcome ConnectReplyReader::consume(const Data& piece) {
  // The blank line may be split between two pieces.
  constexpr std::size_t longestBlank = 3;
  const std::size_t before = head_.size();
  head_ += piece.characters();
  const std::size_t lineEnd = head_.find('\n');
  if (lineEnd != std::string::npos) {
    std::string_view statusLine = std::string_view(head_).substr(0, lineEnd);
    if (statusLine.ends_with('\r')) statusLine.remove_suffix(1);
    if (!isSuccess(statusLine)) return Outcome::refused;
  }
  for (std::size_t at = before > longestBlank ? before - longestBlank : 0;
       (at = head_.find('\n', at)) != std::string::npos; ++at) {
    const std::string_view next = std::string_view(head_).substr(at + 1);
    const std::size_t blank = next.starts_with("\r\n") ? 2 : next.starts_with('\n') ? 1 : 0;
    if (blank == 0) continue;
    const std::size_t headLength = at + 1 + blank;
    if (headLength > longestHead) return Outcome::refused;
    behind_ = piece.slice(headLength - before, head_.size() - headLength);
    return Outcome::established;
  }
  return head_.size() >= longestHead ? Outcome::refused : Outcome::indeterminate;
}

}  // namespace tandor
