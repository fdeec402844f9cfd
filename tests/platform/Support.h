#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include <gtest/gtest.h>

#include "platform/foundation/NSError.h"
#include "platform/linux/EpollLoop.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/SocketAddress.h"

namespace tandor::test {

/// How long anything may take before a test gives up: far more than a loaded machine needs.
inline constexpr std::chrono::seconds patience{20};

/// Whether a sanitizer makes everything several times slower.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool isSanitized = true;
#elif defined(__has_feature)
inline constexpr bool isSanitized =
    __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
inline constexpr bool isSanitized = false;
#endif

/// Asks again and again until `condition` holds; false when patience ends.
[[nodiscard]] bool eventually(const std::function<bool()>& condition);

/// A value that another thread brings. Copies stand for the same value.
template <typename Value>
class Awaited {
 public:
  void set(Value value) const {
    const std::scoped_lock lock(state_->mutex);
    if (state_->value) ADD_FAILURE() << "answered twice";
    state_->value.emplace(std::move(value));
    state_->changed.notify_all();
  }
  [[nodiscard]] bool isSet() const {
    const std::scoped_lock lock(state_->mutex);
    return state_->value.has_value();
  }
  /// Waits for the value; ends the test when nobody brings it.
  [[nodiscard]] Value get() const {
    std::unique_lock lock(state_->mutex);
    if (!state_->changed.wait_for(lock, patience, [this] { return state_->value.has_value(); }))
      throw std::runtime_error("nobody answered");
    return *state_->value;
  }

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable changed;
    std::optional<Value> value;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

using Error = std::optional<NSError>;
/// The error's number, 0 for none.
[[nodiscard]] int codeOf(const Error& error);

/// Open descriptors of this process.
[[nodiscard]] std::size_t openDescriptors();
/// Bytes of memory that this process occupies.
[[nodiscard]] std::size_t residentBytes();

/// Returns once `loop` has seen whatever was ready when this was called.
void passThrough(EpollLoop& loop);

/// `count` bytes from `offset` on of an endless text, in which a byte that is lost, doubled or out
/// of place shows.
[[nodiscard]] std::string pattern(std::size_t count, std::size_t offset = 0);

/// Runs the lines as commands of ip(8) in the tests' own network namespace.
void ip(const std::string& commands);

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

  /// Sends all of `text`; of a datagram socket, as one datagram.
  void send(std::string_view text) const;
  /// Sends until the other side resets; returns the error, 0 if all was sent.
  [[nodiscard]] int trySend(std::string_view text) const;
  /// Sends so many bytes of the pattern from its beginning.
  void sendPattern(std::size_t count) const;
  /// Reads exactly `count` bytes, fewer only at the end of the stream.
  [[nodiscard]] std::string receive(std::size_t count) const;
  /// Reads until the stream ends. `pause` slows it down: a rest after every 64 KiB.
  [[nodiscard]] Transcript receiveAll(std::chrono::milliseconds pause = {}) const;
  /// Reads so many bytes and says where the first one stands that is not the pattern's; `count`
  /// when all are.
  [[nodiscard]] std::size_t receivePattern(std::size_t count) const;
  /// What one read brings: of a datagram socket, one datagram.
  [[nodiscard]] std::string receiveOnce() const;
  /// One datagram from anybody, to whom the socket is connected from here on.
  [[nodiscard]] std::string acceptDatagram() const;
  /// The error of the next read; 0 when it brings bytes or the end.
  [[nodiscard]] int receiveError() const;

  void finishSending() const;
  void reset();
  void close() { socket_.reset(); }
  [[nodiscard]] int descriptor() const noexcept { return socket_.get(); }
  [[nodiscard]] SocketAddress address() const;
  [[nodiscard]] SocketAddress remoteAddress() const;
  [[nodiscard]] FileDescriptor release() { return std::move(socket_); }

 private:
  FileDescriptor socket_;
};

/// A bound socket; port 0 takes a free one.
[[nodiscard]] Peer boundPeer(int type, const std::string& host, std::uint16_t port = 0);
[[nodiscard]] Peer connectedPeer(int type, const SocketAddress& address);
void connectPeer(const Peer& peer, const SocketAddress& address);

/// A listening TCP socket.
class Listener {
 public:
  explicit Listener(const std::string& host = "127.0.0.1", std::uint16_t port = 0);

  [[nodiscard]] Peer accept() const;
  [[nodiscard]] SocketAddress address() const { return socket_.address(); }
  [[nodiscard]] std::uint16_t port() const { return address().port(); }
  [[nodiscard]] int descriptor() const noexcept { return socket_.descriptor(); }
  void close() { socket_.close(); }

 private:
  Peer socket_;
};

/// Checks that a test leaves no descriptor behind.
class DescriptorTest : public testing::Test {
 protected:
  void SetUp() override { before_ = openDescriptors(); }
  void TearDown() override {
    // What else was open for a moment when the test began may have gone.
    EXPECT_TRUE(eventually([this] { return openDescriptors() <= before_; }))
        << openDescriptors() << " descriptors are open, not " << before_;
  }

 private:
  std::size_t before_ = 0;
};

}  // namespace tandor::test
