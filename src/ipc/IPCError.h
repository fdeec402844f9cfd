#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace tandor {

/// A failure of the host application's socket client.
class IPCError {
 public:
  struct InvalidSocketPath {
    std::string message;
    friend bool operator==(const InvalidSocketPath&, const InvalidSocketPath&) = default;
  };
  struct BsdError {
    std::string message;
    std::int32_t errorNumber;
    friend bool operator==(const BsdError&, const BsdError&) = default;
  };
  enum class Plain : std::uint8_t { connAlreadyClosed, notSupport, peerClose, serializeFailed };

  [[nodiscard]] static IPCError invalidSocketPath(std::string_view message) {
    return IPCError(InvalidSocketPath{std::string(message)});
  }
  [[nodiscard]] static IPCError bsdError(std::string_view message, std::int32_t errorNumber) {
    return IPCError(BsdError{std::string(message), errorNumber});
  }
  [[nodiscard]] static IPCError connAlreadyClosed() { return IPCError(Plain::connAlreadyClosed); }
  [[nodiscard]] static IPCError notSupport() { return IPCError(Plain::notSupport); }
  [[nodiscard]] static IPCError peerClose() { return IPCError(Plain::peerClose); }
  [[nodiscard]] static IPCError serializeFailed() { return IPCError(Plain::serializeFailed); }

  /// The case's name, with its labelled payload in parentheses where it has one.
  [[nodiscard]] std::string description() const;

  friend bool operator==(const IPCError&, const IPCError&) = default;

 private:
  using Case = std::variant<InvalidSocketPath, BsdError, Plain>;
  explicit IPCError(Case value) : case_(std::move(value)) {}
  Case case_;
};

}  // namespace tandor
