#include "host/StatusPayload.h"

#include <optional>

#include "ipc/BigEndian.h"
#include "ipc/IPCClient.h"

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

struct Message {
  std::string name;
  std::string content;
};

/// Absent when the bytes, which are enough for an empty payload, are none.
std::optional<Message> readPayload(std::span<const std::uint8_t> payload) {
  Cursor cursor(payload);
  if (cursor.takeNumber<std::uint32_t>() != payloadKind) return std::nullopt;
  static_cast<void>(cursor.take(uuidWidth));
  const auto dataLength = cursor.takeNumber<std::uint64_t>();
  static_cast<void>(cursor.takeNumber<std::uint64_t>());
  if (dataLength != cursor.left()) return std::nullopt;
  static_cast<void>(cursor.take(uuidWidth));
  const auto nameLength = cursor.takeNumber<std::uint64_t>();
  if (nameLength > cursor.left() - sizeof(std::uint64_t)) return std::nullopt;
  const auto name = cursor.take(nameLength);
  if (cursor.takeNumber<std::uint64_t>() != cursor.left()) return std::nullopt;
  const auto content = cursor.take(cursor.left());
  return Message{{name.begin(), name.end()}, {content.begin(), content.end()}};
}

/// Absent for a message of another kind, or a status that is unknown.
std::optional<StatusChange> statusChange(const Message& message) {
  if (message.name != statusMessageName || message.content.empty()) return std::nullopt;
  const auto status = static_cast<std::uint8_t>(message.content.front());
  if (status > static_cast<std::uint8_t>(ProxyProviderStatus::started)) return std::nullopt;
  return StatusChange{static_cast<ProxyProviderStatus>(status), message.content.substr(1)};
}

}  // namespace

bool PayloadReader::read(std::span<const std::uint8_t> bytes,
                         const std::function<void(const StatusChange&)>& handler) {
  unread_.insert(unread_.end(), bytes.begin(), bytes.end());
  while (unread_.size() >= lengthWidth) {
    const std::size_t length = readBigEndian<std::uint32_t>(unread_);
    if (length < emptyPayload || length > IPCClient::maximumPacketLength) return false;
    if (unread_.size() < lengthWidth + length) break;
    const auto message = readPayload(std::span(unread_).subspan(lengthWidth, length));
    if (!message) return false;
    unread_.erase(unread_.begin(),
                  unread_.begin() + static_cast<std::ptrdiff_t>(lengthWidth + length));
    if (const auto change = statusChange(*message)) handler(*change);
  }
  return true;
}

}  // namespace tandor::host
