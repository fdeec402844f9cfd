#include "host/StatusPayload.h"

#include "ipc/BigEndian.h"
#include "ipc/IPCClient.h"
#include "platform/foundation/Text.h"

namespace tandor::host {
namespace {

constexpr std::uint32_t payloadKind = 10;
constexpr std::size_t uuidWidth = 16;
constexpr std::size_t lengthWidth = sizeof(std::uint32_t);
/// Kind, packet's UUID, data length, reserved, block's UUID, name length, content length.
constexpr std::size_t emptyPayload = 4 + uuidWidth + 8 + 8 + uuidWidth + 8 + 8;

/// Takes numbers and ranges off the front of bytes.
class Cursor {
 public:
  explicit Cursor(std::span<const std::uint8_t> bytes) noexcept : bytes_(bytes) {}

  [[nodiscard]] std::size_t left() const noexcept { return bytes_.size(); }
  [[nodiscard]] std::span<const std::uint8_t> take(std::size_t count) noexcept {
    const auto taken = bytes_.first(count);
    bytes_ = bytes_.subspan(count);
    return taken;
  }
  template <typename Number>
  [[nodiscard]] Number takeNumber() noexcept {
    return readBigEndian<Number>(take(sizeof(Number)));
  }

 private:
  std::span<const std::uint8_t> bytes_;
};

std::string textOf(std::span<const std::uint8_t> bytes) {
  return {bytes.begin(), bytes.end()};
}

/// `payload` is at least as long as an empty one.
std::expected<HostMessage, std::string_view> readPayload(std::span<const std::uint8_t> payload) {
  Cursor cursor(payload);
  if (cursor.takeNumber<std::uint32_t>() != payloadKind)
    return std::unexpected("a payload of an unknown kind");
  static_cast<void>(cursor.take(uuidWidth));
  const auto dataLength = cursor.takeNumber<std::uint64_t>();
  static_cast<void>(cursor.takeNumber<std::uint64_t>());
  if (dataLength != cursor.left()) return std::unexpected("a packet of another length");
  static_cast<void>(cursor.take(uuidWidth));
  const auto nameLength = cursor.takeNumber<std::uint64_t>();
  if (nameLength > cursor.left() - sizeof(std::uint64_t))
    return std::unexpected("a name that is longer than its packet");
  HostMessage message;
  message.name = textOf(cursor.take(nameLength));
  if (cursor.takeNumber<std::uint64_t>() != cursor.left())
    return std::unexpected("a content of another length");
  message.content = textOf(cursor.take(cursor.left()));
  return message;
}

}  // namespace

void PayloadReader::append(std::span<const std::uint8_t> bytes) {
  bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
}

std::expected<std::optional<HostMessage>, std::string_view> PayloadReader::next() {
  if (bytes_.size() < lengthWidth) return std::nullopt;
  const std::size_t length = readBigEndian<std::uint32_t>(bytes_);
  if (length < emptyPayload || length > IPCClient::maximumPacketLength)
    return std::unexpected("a payload of an impossible length");
  if (bytes_.size() < lengthWidth + length) return std::nullopt;
  auto message = readPayload(std::span(bytes_).subspan(lengthWidth, length));
  if (!message) return std::unexpected(message.error());
  bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(lengthWidth + length));
  return std::move(*message);
}

std::optional<StatusChange> statusChange(const HostMessage& message) {
  if (message.name != statusMessageName || message.content.empty()) return std::nullopt;
  const auto status = static_cast<std::uint8_t>(message.content.front());
  if (status > static_cast<std::uint8_t>(ProxyProviderStatus::started)) return std::nullopt;
  return StatusChange{static_cast<ProxyProviderStatus>(status), message.content.substr(1)};
}

}  // namespace tandor::host
