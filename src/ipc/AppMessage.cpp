#include "ipc/AppMessage.h"

#include <cstdint>
#include <vector>

#include "ipc/BigEndian.h"
#include "platform/foundation/Text.h"

namespace tandor {
namespace {

constexpr std::uint64_t lengthWidth = sizeof(std::uint32_t);

}  // namespace

std::expected<AppMessage, std::string_view> readAppMessage(const Data& data) {
  const auto bytes = data.bytes();
  // 64-bit sums: a length near the top of 32 bits cannot wrap around.
  if (bytes.size() < lengthWidth) return std::unexpected("no name length");
  const std::uint64_t nameLength = readBigEndian<std::uint32_t>(bytes);
  const std::uint64_t nameEnd = lengthWidth + nameLength;
  if (bytes.size() < nameEnd) return std::unexpected("no name string");
  auto name = decodeUTF8(bytes.subspan(lengthWidth, nameLength));
  if (!name) return std::unexpected("name string decode failed");
  const std::uint64_t contentStart = nameEnd + lengthWidth;
  if (bytes.size() < contentStart) return std::unexpected("no content length");
  const std::uint64_t contentLength = readBigEndian<std::uint32_t>(bytes.subspan(nameEnd));
  if (bytes.size() < contentStart + contentLength) return std::unexpected("no content data");
  return AppMessage{std::move(*name), data.slice(contentStart, contentLength)};
}

Data makeAppMessage(std::string_view name, const Data& content) {
  std::vector<std::uint8_t> bytes;
  bytes.reserve(2 * lengthWidth + name.size() + content.count());
  appendBigEndian(bytes, static_cast<std::uint32_t>(name.size()));
  bytes.insert(bytes.end(), name.begin(), name.end());
  appendBigEndian(bytes, static_cast<std::uint32_t>(content.count()));
  bytes.insert(bytes.end(), content.bytes().begin(), content.bytes().end());
  return Data::copying(bytes);
}

}  // namespace tandor
