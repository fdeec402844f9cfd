#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tandor {

/// Whether `bytes` are well-formed UTF-8 (RFC 3629: no overlong forms, no surrogates).
[[nodiscard]] bool isUTF8(std::span<const std::uint8_t> bytes) noexcept;
[[nodiscard]] bool isUTF8(std::string_view text) noexcept;

/// The text that `bytes` encode, or absent when they are not well-formed UTF-8.
[[nodiscard]] std::optional<std::string> decodeUTF8(std::span<const std::uint8_t> bytes);

/// As decodeUTF8, but each maximal ill-formed sequence becomes U+FFFD.
[[nodiscard]] std::string decodeUTF8Repairing(std::span<const std::uint8_t> bytes);

/// `text` between double quotes, with backslash escapes for quotes, backslashes and controls.
[[nodiscard]] std::string quoted(std::string_view text);

/// The value of a decimal number of digits only (no sign, no blanks), at most `limit`.
[[nodiscard]] std::optional<std::uint64_t> parseDecimal(std::string_view text,
                                                        std::uint64_t limit) noexcept;

}  // namespace tandor
