#include "tls/ClientHello.h"

#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <string_view>

#include <fmt/format.h>

#include "platform/foundation/NSLog.h"
#include "platform/foundation/Text.h"

namespace tandor {
namespace {

constexpr std::size_t recordHeaderSize = 5;
constexpr std::size_t extensionHeaderSize = 4;  // type and length
constexpr std::size_t nameHeaderSize = 3;       // name type and length
// Behind the record header: handshake type (1) and length (3), client version (2), random (32).
constexpr std::size_t sessionIdOffset = recordHeaderSize + 38;

constexpr std::uint8_t handshakeRecord = 22;
constexpr std::uint8_t clientHelloMessage = 1;
constexpr std::uint8_t hostNameType = 0;

struct Free {
  // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): malloc's memory
  void operator()(char* text) const noexcept { std::free(text); }
};

std::size_t readUInt16(const std::uint8_t* data) noexcept {
  return static_cast<std::size_t>(data[0]) << 8U | data[1];
}

/// Formats on the stack: the name is the only thing that a call may allocate.
template <typename... Numbers>
void logNumbers(fmt::format_string<Numbers...> format, Numbers... numbers) {
  fmt::memory_buffer message;
  fmt::vformat_to(std::back_inserter(message), format, fmt::make_format_args(numbers...));
  NSLog({message.data(), message.size()});
}

/// Walks the body of the server_name extension.
std::int32_t parse_server_name_extension(const std::uint8_t* data, std::size_t length,
                                         char** hostname) noexcept {
  std::size_t position = 2;  // The length of the list says nothing that the body's does not.
  while (position + nameHeaderSize < length) {
    const std::size_t nameLength = readUInt16(data + position + 1);
    if (position + nameHeaderSize + nameLength > length) return clientHelloMalformed;
    const std::uint8_t nameType = data[position];
    position += nameHeaderSize;
    if (nameType == hostNameType) {
      // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): the contract
      *hostname = static_cast<char*>(std::malloc(nameLength + 1));
      if (*hostname == nullptr) {
        NSLog("malloc() failure");
        return clientHelloOutOfMemory;
      }
      std::strncpy(*hostname, reinterpret_cast<const char*>(data + position), nameLength);
      (*hostname)[nameLength] = '\0';
      return static_cast<std::int32_t>(nameLength);
    }
    logNumbers("Unknown server name extension name type: {}", nameType);
    position += nameLength;
  }
  return position == length ? clientHelloWithoutName : clientHelloMalformed;
}

/// Walks the extensions up to the first server_name, whose outcome is final.
std::int32_t parse_extensions(const std::uint8_t* data, std::size_t length,
                              char** hostname) noexcept {
  std::size_t position = 0;
  while (position + extensionHeaderSize <= length) {
    const std::size_t type = readUInt16(data + position);
    const std::size_t bodyLength = readUInt16(data + position + 2);
    position += extensionHeaderSize;
    if (type == 0) {
      if (position + bodyLength > length) return clientHelloMalformed;
      return parse_server_name_extension(data + position, bodyLength, hostname);
    }
    position += bodyLength;
  }
  return position == length ? clientHelloWithoutName : clientHelloMalformed;
}

}  // namespace

std::int32_t parse_tls_header(const std::uint8_t* data, std::size_t length,
                              char** hostname) noexcept {
  if (hostname == nullptr) return clientHelloNoResult;
  if (length < recordHeaderSize) return clientHelloIncomplete;

  const std::uint8_t major = data[1];
  const std::uint8_t minor = data[2];
  // SSL 2.0 has a two-byte header whose top bit is set, and the message type right behind it.
  if ((data[0] & 0x80U) != 0 && minor == clientHelloMessage) {
    NSLog("Received SSL 2.0 Client Hello which can not support SNI.");
    return clientHelloWithoutName;
  }
  if (data[0] != handshakeRecord) {
    NSLog("Request did not begin with TLS handshake.");
    return clientHelloMalformed;
  }
  if (major < 3) {
    logNumbers("Received SSL {}.{} handshake which can not support SNI.", major, minor);
    return clientHelloWithoutName;
  }
  const std::size_t end = recordHeaderSize + readUInt16(data + 3);
  if (end > length) return clientHelloIncomplete;

  std::size_t position = recordHeaderSize;
  if (position + 1 > end) return clientHelloMalformed;
  if (data[position] != clientHelloMessage) {
    NSLog("Not a client hello");
    return clientHelloMalformed;
  }
  position = sessionIdOffset;
  if (position + 1 > end) return clientHelloMalformed;
  position += 1U + data[position];
  if (position + 2 > end) return clientHelloMalformed;
  position += 2 + readUInt16(data + position);  // cipher suites
  if (position + 1 > end) return clientHelloMalformed;
  position += 1U + data[position];  // compression methods

  if (major == 3 && minor == 0 && position == end) {
    NSLog("Received SSL 3.0 handshake without extensions");
    return clientHelloWithoutName;
  }
  if (position + 2 > end) return clientHelloMalformed;
  const std::size_t extensionsLength = readUInt16(data + position);
  position += 2;
  if (position + extensionsLength > end) return clientHelloMalformed;
  return parse_extensions(data + position, extensionsLength, hostname);
}

std::optional<std::string> serverName(const Data& data) {
  const auto bytes = data.bytes();
  if (bytes.data() == nullptr) return std::nullopt;
  char* name = nullptr;
  const std::int32_t code = parse_tls_header(bytes.data(), bytes.size(), &name);
  const std::unique_ptr<char, Free> owner(name);
  if (code < 0 || name == nullptr) return std::nullopt;
  return decodeUTF8Repairing({reinterpret_cast<const std::uint8_t*>(name), std::strlen(name)});
}

}  // namespace tandor
