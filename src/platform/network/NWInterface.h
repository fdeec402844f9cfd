#pragma once

#include <cstdint>
#include <string>

namespace tandor {

/// A network interface: a value that names it, not a handle that keeps it.
struct NWInterface {
  enum class InterfaceType : std::uint8_t { other, wifi, cellular, wiredEthernet, loopback };

  std::string name;
  InterfaceType type = InterfaceType::other;
  std::uint32_t index = 0;

  friend bool operator==(const NWInterface&, const NWInterface&) = default;
};

}  // namespace tandor
