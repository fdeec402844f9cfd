#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "ipc/StatusMessage.h"

namespace tandor::host {

/// What a provider tells its host application: a name that selects the meaning, and a content.
struct HostMessage {
  std::string name;
  std::string content;
};

/// Puts the payloads of one connection together from the pieces in which they arrive.
class PayloadReader {
 public:
  void append(std::span<const std::uint8_t> bytes);
  /// The next message that is there in full; nothing while bytes are missing. Fails when the bytes
  /// are no payload, and never recovers from that.
  [[nodiscard]] std::expected<std::optional<HostMessage>, std::string_view> next();

 private:
  std::vector<std::uint8_t> bytes_;
};

/// A provider has started, or stops; `text` is its own description, empty for none.
struct StatusChange {
  ProxyProviderStatus status;
  std::string text;
};

/// Absent for a message of another kind, or a status that is unknown.
[[nodiscard]] std::optional<StatusChange> statusChange(const HostMessage& message);

}  // namespace tandor::host
