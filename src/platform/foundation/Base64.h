#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tandor {

/// Base64 with padding (RFC 4648, section 4).
[[nodiscard]] std::string encodeBase64(std::span<const std::uint8_t> bytes);
/// Absent for anything but whole, correctly padded groups of the alphabet.
[[nodiscard]] std::optional<std::vector<std::uint8_t>> decodeBase64(std::string_view text);

}  // namespace tandor
