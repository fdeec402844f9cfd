#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "ipc/StatusMessage.h"

namespace tandor::host {

/// A provider has started, or stops; `text` is its own description, empty for none.
struct StatusChange {
  ProxyProviderStatus status;
  std::string text;
};

/// Puts the payloads of one connection together from the pieces in which they arrive.
class PayloadReader {
 public:
  /// Takes the next bytes and calls `handler` for every change of status that is there in full;
  /// other messages are passed over. False once the bytes are no payloads.
  [[nodiscard]] bool read(std::span<const std::uint8_t> bytes,
                          const std::function<void(const StatusChange&)>& handler);

 private:
  std::vector<std::uint8_t> unread_;
};

}  // namespace tandor::host
