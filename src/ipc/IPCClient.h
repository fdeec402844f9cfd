#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "ipc/IPCError.h"
#include "platform/foundation/Data.h"

namespace tandor {

/// A client of the host application's Unix-domain stream socket, for one message: made (which
/// connects and shakes hands), one sendMessage, close. Used by one thread; its calls block, all of
/// them together at most for `waitLimit`: a start and a stop wait for them. A client that is
/// dropped closes its descriptor. Relies on the process ignoring SIGPIPE.
class IPCClient {
 public:
  static constexpr std::int64_t maximumPacketLength = 1'048'576;
  /// Bytes of a path with its terminator, on every platform.
  static constexpr std::size_t maximumPathLength = 104;
  static constexpr std::chrono::seconds waitLimit{3};

  /// Connects to the socket at `socketPath` and performs the handshake: read 2 bytes, write a zero
  /// byte, read 4, write a zero byte. What the host application sends is not examined. A failure
  /// leaves no open socket.
  [[nodiscard]] static std::expected<IPCClient, IPCError> make(
      std::string_view socketPath, std::chrono::milliseconds limit = waitLimit);

  IPCClient(IPCClient&& other) noexcept;
  IPCClient& operator=(IPCClient&& other) noexcept;
  IPCClient(const IPCClient&) = delete;
  IPCClient& operator=(const IPCClient&) = delete;
  ~IPCClient();

  [[nodiscard]] const std::string& socketPath() const noexcept { return socketPath_; }
  [[nodiscard]] std::optional<std::int32_t> socketFd() const noexcept { return socketFd_; }

  /// Builds the payload of a named message and writes it; reads no answer.
  [[nodiscard]] std::expected<void, IPCError> sendMessage(std::string_view name,
                                                          const std::optional<Data>& content);
  /// Reads once, up to `count` bytes; fewer, and none when the peer has closed, are no errors.
  [[nodiscard]] std::expected<Data, IPCError> receive(std::size_t count);
  /// Writes all of `bytes`; more than maximumPacketLength are refused whole.
  [[nodiscard]] std::expected<void, IPCError> send(std::span<const std::uint8_t> bytes);
  [[nodiscard]] std::expected<void, IPCError> close();

 private:
  using Clock = std::chrono::steady_clock;

  IPCClient(std::string_view socketPath, Clock::time_point deadline)
      : socketPath_(socketPath), deadline_(deadline) {}

  [[nodiscard]] std::expected<void, IPCError> connect();
  [[nodiscard]] std::expected<void, IPCError> handshake();

  /// Lets the next call on the socket wait until the deadline.
  void limitWait(int option) const;

  std::string socketPath_;
  std::optional<std::int32_t> socketFd_;
  Clock::time_point deadline_;
};

}  // namespace tandor
