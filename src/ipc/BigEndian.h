#pragma once

#include <concepts>
#include <cstdint>
#include <span>
#include <vector>

namespace tandor {

/// Appends `number` to `bytes`, most significant byte first, in its type's width.
template <std::unsigned_integral Number>
void appendBigEndian(std::vector<std::uint8_t>& bytes, Number number) {
  for (std::size_t shift = sizeof(Number) * 8; shift > 0; shift -= 8)
    bytes.push_back(static_cast<std::uint8_t>(number >> (shift - 8)));
}

/// The number whose big-endian bytes stand at the front of `bytes`, which holds enough of them.
template <std::unsigned_integral Number>
[[nodiscard]] Number readBigEndian(std::span<const std::uint8_t> bytes) {
  std::uint64_t number = 0;
  for (const std::uint8_t byte : bytes.first(sizeof(Number))) number = number << 8 | byte;
  return static_cast<Number>(number);
}

}  // namespace tandor
