#include "platform/foundation/Text.h"

#include <charconv>
#include <iterator>
#include <memory>
#include <system_error>
#include <utility>

#include <fmt/format.h>

namespace tandor {
namespace {

using Bytes = std::span<const std::uint8_t>;

struct Sequence {
  std::size_t length;  // bytes consumed: the character, or the maximal ill-formed prefix of one
  bool isWellFormed;
};

/// Reads one character at the front of `bytes`, which is not empty (RFC 3629, section 4).
Sequence nextSequence(Bytes bytes) noexcept {
  const std::uint8_t lead = bytes[0];
  if (lead < 0x80) return {1, true};
  std::size_t length = 0;
  std::uint8_t lowest = 0x80;   // bounds of the second byte; they exclude overlong forms,
  std::uint8_t highest = 0xBF;  // surrogates and values past U+10FFFF
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) lowest = 0xA0;
    if (lead == 0xED) highest = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) lowest = 0x90;
    if (lead == 0xF4) highest = 0x8F;
  } else {
    return {1, false};
  }
  for (std::size_t index = 1; index < length; ++index) {
    if (index >= bytes.size() || bytes[index] < lowest || bytes[index] > highest)
      return {index, false};
    lowest = 0x80;
    highest = 0xBF;
  }
  return {length, true};
}

Bytes bytesOf(std::string_view text) noexcept {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

}  // namespace

bool isUTF8(Bytes bytes) noexcept {
  while (!bytes.empty()) {
    const Sequence sequence = nextSequence(bytes);
    if (!sequence.isWellFormed) return false;
    bytes = bytes.subspan(sequence.length);
  }
  return true;
}

bool isUTF8(std::string_view text) noexcept {
  return isUTF8(bytesOf(text));
}

std::optional<std::string> decodeUTF8(Bytes bytes) {
  if (!isUTF8(bytes)) return std::nullopt;
  return std::string(bytes.begin(), bytes.end());
}

std::string decodeUTF8Repairing(Bytes bytes) {
  if (auto whole = decodeUTF8(bytes)) return std::move(*whole);
  std::string text;
  text.reserve(bytes.size());
  while (!bytes.empty()) {
    const Sequence sequence = nextSequence(bytes);
    if (sequence.isWellFormed) {
      text.append(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(sequence.length));
    } else {
      text += "\xEF\xBF\xBD";
    }
    bytes = bytes.subspan(sequence.length);
  }
  return text;
}

std::string quoted(std::string_view text) {
  std::string result = "\"";
  for (const char character : text) {
    switch (character) {
      case '"':
        result += "\\\"";
        break;
      case '\\':
        result += "\\\\";
        break;
      case '\n':
        result += "\\n";
        break;
      case '\r':
        result += "\\r";
        break;
      case '\t':
        result += "\\t";
        break;
      case '\0':
        result += "\\0";
        break;
      default: {
        const auto value = static_cast<unsigned char>(character);
        if (value < 0x20 || value == 0x7F) {
          fmt::format_to(std::back_inserter(result), "\\u{{{:02X}}}", value);
        } else {
          result += character;
        }
      }
    }
  }
  result += '"';
  return result;
}

std::optional<std::uint64_t> parseDecimal(std::string_view text, std::uint64_t limit) noexcept {
  std::uint64_t value = 0;
  const auto* const textEnd = std::to_address(text.end());
  const auto [end, error] = std::from_chars(std::to_address(text.begin()), textEnd, value);
  if (error != std::errc() || end != textEnd || value > limit) return std::nullopt;
  return value;
}

}  // namespace tandor
