#include "platform/network/NWEndpoint.h"

#include <limits>

#include "platform/foundation/Text.h"

namespace tandor {

std::optional<NWEndpoint::Port> NWEndpoint::Port::fromText(std::string_view text) noexcept {
  const auto number = parseDecimal(text, std::numeric_limits<std::uint16_t>::max());
  if (!number) return std::nullopt;
  return Port(static_cast<std::uint16_t>(*number));
}

std::string NWEndpoint::description() const {
  return host_.description() + ":" + port_.description();
}

}  // namespace tandor
