#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/foundation/Data.h"

namespace tandor::test {

/// A small TLS ClientHello that asks for `host`.
[[nodiscard]] inline Data clientHello(std::string_view host) {
  using Bytes = std::vector<std::uint8_t>;
  const auto sized = [](const Bytes& body) {
    Bytes all = {static_cast<std::uint8_t>(body.size() >> 8U),
                 static_cast<std::uint8_t>(body.size())};
    all.insert(all.end(), body.begin(), body.end());
    return all;
  };
  const auto behind = [](Bytes front, const Bytes& body) {
    front.insert(front.end(), body.begin(), body.end());
    return front;
  };
  const Bytes name = behind({0}, sized({host.begin(), host.end()}));
  const Bytes extensions = behind({0, 0}, sized(sized(name)));
  Bytes hello = behind({3, 3}, Bytes(32, 0xAA));
  hello = behind(hello, {0, 0, 2, 0x13, 1, 1, 0});
  hello = behind(hello, sized(extensions));
  return Data::copying(behind({22, 3, 1}, sized(behind({1, 0}, sized(hello)))));
}

}  // namespace tandor::test
