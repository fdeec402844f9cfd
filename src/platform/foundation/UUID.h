#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace tandor {

/// A universally unique identifier: its 16 bytes in the order of its text form (RFC 4122).
struct UUID {
  std::array<std::uint8_t, 16> bytes{};

  /// A new random identifier (version 4), from the system's random source. Any thread.
  [[nodiscard]] static UUID random();

  [[nodiscard]] std::string description() const;

  friend bool operator==(const UUID&, const UUID&) = default;
};

}  // namespace tandor
