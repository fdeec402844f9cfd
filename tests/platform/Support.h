#pragma once

#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include <gtest/gtest.h>

#include "platform/foundation/NSError.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/SocketAddress.h"
#include "support/Waiting.h"

namespace tandor::test {

inline constexpr std::size_t mebibyte = std::size_t{1} << 20;

/// Whether a sanitizer makes everything several times slower.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool isSanitized = true;
#elif defined(__has_feature)
inline constexpr bool isSanitized =
    __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
inline constexpr bool isSanitized = false;
#endif

/// A value that another thread brings, once. Copies stand for the same value.
template <typename Value>
class Awaited {
 public:
  void set(Value value) const { promise_->set_value(std::move(value)); }
  [[nodiscard]] bool isSet() const {
    return future_.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
  }
  /// Waits for the value; ends the test when nobody brings it.
  [[nodiscard]] Value get() const {
    if (future_.wait_for(patience) != std::future_status::ready)
      throw std::runtime_error("nobody answered");
    return future_.get();
  }

 private:
  std::shared_ptr<std::promise<Value>> promise_ = std::make_shared<std::promise<Value>>();
  std::shared_future<Value> future_ = promise_->get_future().share();
};

using Error = std::optional<NSError>;
/// The error's number, 0 for none.
[[nodiscard]] inline int codeOf(const Error& error) {
  return error ? static_cast<int>(error->code()) : 0;
}

/// `count` bytes from `offset` on of an endless text, in which a byte that is lost, doubled or out
/// of place shows.
[[nodiscard]] std::string pattern(std::size_t count, std::size_t offset = 0);

/// What a peer has read until the stream ended, and the error that ended it (0: in order).
struct Transcript {
  std::string text;
  int error = 0;
};

/// A blocking socket at the other end of what is tested. A wait longer than patience, and any
/// error that a call does not return, ends the test.
class Peer {
 public:
  explicit Peer(FileDescriptor socket);

  /// Sends all of `text`.
  void send(std::string_view text) const;
  /// Reads exactly `count` bytes, fewer only at the end of the stream.
  [[nodiscard]] std::string receive(std::size_t count) const;
  /// Reads until the stream ends. `pause` slows it down: a rest after every 64 KiB.
  [[nodiscard]] Transcript receiveAll(std::chrono::milliseconds pause = {}) const;
  /// The error of the next read; 0 when it brings bytes or the end.
  [[nodiscard]] int receiveError() const;

  void connect(const SocketAddress& address) const;
  void finishSending() const;
  void reset();
  void close() { socket_.reset(); }
  [[nodiscard]] int descriptor() const noexcept { return socket_.get(); }
  [[nodiscard]] SocketAddress address() const;
  [[nodiscard]] FileDescriptor release() { return std::move(socket_); }

 private:
  FileDescriptor socket_;
};

/// A listening TCP socket.
class Listener {
 public:
  explicit Listener(const std::string& host = "127.0.0.1");

  [[nodiscard]] Peer accept() const;
  [[nodiscard]] SocketAddress address() const { return socket_.address(); }
  [[nodiscard]] std::uint16_t port() const { return address().port(); }

 private:
  Peer socket_;
};

}  // namespace tandor::test
