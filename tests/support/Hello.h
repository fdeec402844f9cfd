#pragma once

#include <cstdint>
#include <initializer_list>
#include <string_view>
#include <vector>

#include "platform/foundation/Data.h"

// ClientHellos, right ones and wrong ones, put together from their parts.

namespace tandor::test {

using Bytes = std::vector<std::uint8_t>;

inline Bytes text(std::string_view characters) {
  return {characters.begin(), characters.end()};
}

inline Bytes join(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

/// `body` behind its length of two bytes, which says `excess` too much.
inline Bytes sized(const Bytes& body, std::size_t excess = 0) {
  const std::size_t length = body.size() + excess;
  return join({{static_cast<std::uint8_t>(length >> 8U), static_cast<std::uint8_t>(length)}, body});
}

inline Bytes entry(std::uint8_t type, std::string_view name, std::size_t excess = 0) {
  return join({{type}, sized(text(name), excess)});
}
inline Bytes extension(std::uint8_t type, const Bytes& body, std::size_t excess = 0) {
  return join({{0, type}, sized(body, excess)});
}
inline Bytes record(const Bytes& message, std::uint8_t major = 3, std::uint8_t minor = 1,
                    std::size_t excess = 0) {
  return join({{22, major, minor}, sized(message, excess)});
}

inline const Bytes upToCompression =
    join({{1, 0, 0, 99, 3, 3}, Bytes(32, 0xAA), {2, 7, 7}, sized({0x13, 1, 0x13, 2}), {1, 0}});

inline Bytes helloWith(const Bytes& extensions, std::size_t excess = 0) {
  return record(join({upToCompression, sized(extensions, excess)}));
}
inline Bytes helloNaming(const Bytes& serverNameBody) {
  return helloWith(join({extension(10, {1, 2}), extension(0, serverNameBody), extension(16, {})}));
}

/// A small ClientHello that asks for `host`.
[[nodiscard]] inline Data clientHello(std::string_view host) {
  return Data::copying(helloWith(extension(0, sized(entry(0, host)))));
}

}  // namespace tandor::test
