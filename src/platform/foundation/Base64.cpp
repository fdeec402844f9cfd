#include "platform/foundation/Base64.h"

namespace tandor {
namespace {

constexpr std::string_view alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::size_t groupBytes = 3;
constexpr std::size_t groupCharacters = 4;

}  // namespace

std::string encodeBase64(std::span<const std::uint8_t> bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / groupBytes * groupCharacters);
  for (; !bytes.empty(); bytes = bytes.subspan(std::min(groupBytes, bytes.size()))) {
    std::uint32_t group = 0;
    for (std::size_t index = 0; index < groupBytes; ++index)
      group = group << 8 | (index < bytes.size() ? bytes[index] : 0U);
    for (std::size_t index = 0; index < groupCharacters; ++index) {
      const bool isPadding = index > bytes.size();
      text += isPadding ? '=' : alphabet[group >> (18 - 6 * index) & 0x3F];
    }
  }
  return text;
}

std::optional<std::vector<std::uint8_t>> decodeBase64(std::string_view text) {
  if (text.size() % groupCharacters != 0) return std::nullopt;
  std::size_t padding = 0;
  while (padding < 2 && text.ends_with('=')) {
    text.remove_suffix(1);
    ++padding;
  }
  std::vector<std::uint8_t> bytes;
  bytes.reserve(text.size() * groupBytes / groupCharacters);
  std::uint32_t group = 0;
  unsigned bits = 0;
  for (const char character : text) {
    const std::size_t value = alphabet.find(character);
    if (value == std::string_view::npos) return std::nullopt;
    group = group << 6 | static_cast<std::uint32_t>(value);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      bytes.push_back(static_cast<std::uint8_t>(group >> bits));
    }
  }
  return bytes;
}

}  // namespace tandor
