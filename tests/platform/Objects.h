#pragma once

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/time.h>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "platform/dispatch/DispatchQueue.h"
#include "platform/linux/EpollLoop.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/Resolver.h"
#include "platform/linux/SocketAddress.h"
#include "platform/linux/SocketConnection.h"
#include "platform/linux/SocketTCPFlow.h"
#include "support/Waiting.h"

// The platform's objects, made over real sockets and called in the way of a test: each call returns
// what its completion will bring.

namespace tandor::test {

inline constexpr std::size_t mebibyte = std::size_t{1} << 20;

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
[[nodiscard]] inline std::string pattern(std::size_t count, std::size_t offset = 0) {
  // Of prime length, so that no power of two hides a shift.
  static const std::string block = [] {
    std::string bytes(1'000'003, '\0');
    std::mt19937 random(20'260'101);  // NOLINT(*-msc51-cpp): the same in every run
    std::ranges::generate(bytes, [&] { return static_cast<char>(random()); });
    return bytes;
  }();
  std::string text;
  text.reserve(count);
  while (text.size() < count)
    text.append(block, (offset + text.size()) % block.size(), count - text.size());
  return text;
}

/// What a peer has read until the stream ended, and the error that ended it (0: in order).
struct Transcript {
  std::string text;
  int error = 0;
};

/// A blocking socket at the other end of what is tested. A wait longer than patience, and any
/// error that a call does not return, ends the test.
class Peer {
 public:
  explicit Peer(FileDescriptor socket) : socket_(std::move(socket)) {
    const timeval limit{.tv_sec = patience.count(), .tv_usec = 0};
    for (const int option : {SO_RCVTIMEO, SO_SNDTIMEO})
      ::setsockopt(descriptor(), SOL_SOCKET, option, &limit, sizeof limit);
  }

  /// Sends all of `text`.
  void send(std::string_view text, int flags = 0) const {
    do {
      const ssize_t count = ::send(descriptor(), text.data(), text.size(), MSG_NOSIGNAL | flags);
      check(count >= 0, "send");
      text.remove_prefix(static_cast<std::size_t>(count));
    } while (!text.empty());
  }
  /// Reads exactly `count` bytes, fewer only at the end of the stream.
  [[nodiscard]] std::string receive(std::size_t count) const {
    std::string text(count, '\0');
    const ssize_t done = ::recv(descriptor(), text.data(), count, MSG_WAITALL);
    check(done >= 0, "recv");
    text.resize(static_cast<std::size_t>(done));
    return text;
  }
  /// Reads until the stream ends. `pause` slows it down: a rest after every 64 KiB.
  [[nodiscard]] Transcript receiveAll(std::chrono::milliseconds pause = {}) const {
    Transcript transcript;
    std::string piece(std::size_t{64} * 1024, '\0');
    for (;;) {
      const ssize_t count = ::recv(descriptor(), piece.data(), piece.size(), 0);
      check(count >= 0 || errno != EAGAIN, "recv");
      if (count < 0) transcript.error = errno;
      if (count <= 0) return transcript;
      transcript.text.append(piece, 0, static_cast<std::size_t>(count));
      if (pause.count() > 0) std::this_thread::sleep_for(pause);
    }
  }

  void finishSending() const { check(::shutdown(descriptor(), SHUT_WR) == 0, "shutdown"); }
  void close() { socket_.reset(); }
  [[nodiscard]] FileDescriptor release() { return std::move(socket_); }
  [[nodiscard]] int descriptor() const noexcept { return socket_.get(); }

  static void check(bool isFine, const char* call) {
    if (!isFine) throw std::system_error(errno, std::generic_category(), call);
  }

 private:
  FileDescriptor socket_;
};

/// A listening TCP socket.
class Listener {
 public:
  explicit Listener(const std::string& host = "127.0.0.1") {
    const SocketAddress address = SocketAddress::fromNumeric(host, 0).value();
    socket_ = FileDescriptor(::socket(address.family(), SOCK_STREAM | SOCK_CLOEXEC, 0));
    Peer::check(::bind(socket_.get(), &address.get(), address.length()) == 0, "bind");
    Peer::check(::listen(socket_.get(), SOMAXCONN) == 0, "listen");
  }

  [[nodiscard]] Peer accept() const {
    Peer peer(FileDescriptor(::accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC)));
    Peer::check(peer.descriptor() >= 0, "accept");
    return peer;
  }
  [[nodiscard]] SocketAddress address() const {
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    ::getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&storage), &length);
    return {reinterpret_cast<const sockaddr&>(storage), length};
  }
  [[nodiscard]] std::uint16_t port() const { return address().port(); }

 private:
  FileDescriptor socket_;
};

struct Read {
  std::optional<Data> data;
  Error error;
  bool isComplete = false;  // of a connection

  [[nodiscard]] std::string text() const {
    return data ? std::string(data->characters()) : std::string();
  }
};

[[nodiscard]] inline Awaited<Error> open(NEAppProxyFlow& flow) {
  const Awaited<Error> opened;
  flow.open(std::nullopt, [opened](const Error& error) { opened.set(error); });
  return opened;
}

[[nodiscard]] inline Awaited<Read> read(NEAppProxyTCPFlow& flow) {
  const Awaited<Read> answer;
  flow.readData([answer](std::optional<Data> data, const Error& error) {
    answer.set({std::move(data), error, false});
  });
  return answer;
}

[[nodiscard]] inline Awaited<Error> write(NEAppProxyTCPFlow& flow, std::string_view text) {
  const Awaited<Error> written;
  flow.write(Data::copying(text), [written](const Error& error) { written.set(error); });
  return written;
}

inline void close(NEAppProxyFlow& flow) {
  flow.closeReadWithError(std::nullopt);
  flow.closeWriteWithError(std::nullopt);
}

struct TCPFlow {
  std::shared_ptr<SocketTCPFlow> flow;
  Peer app;
};

/// A flow that is not yet open. The kernel buffers no more than `buffer` bytes a direction if that
/// is given.
[[nodiscard]] inline TCPFlow makeTCPFlow(EpollLoop& loop, int buffer = 0) {
  const int half = buffer / 2;  // the kernel doubles the number that it is given
  const auto limitBuffers = [half](const Peer& peer) {
    for (const int option : {SO_SNDBUF, SO_RCVBUF})
      if (half > 0) ::setsockopt(peer.descriptor(), SOL_SOCKET, option, &half, sizeof half);
  };
  const Listener listener;
  const SocketAddress address = listener.address();
  Peer client(FileDescriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)));
  limitBuffers(client);
  Peer::check(::connect(client.descriptor(), &address.get(), address.length()) == 0, "connect");
  Peer accepted = listener.accept();
  limitBuffers(accepted);
  ::fcntl(accepted.descriptor(), F_SETFL, O_NONBLOCK);
  return {makeResident<SocketTCPFlow>(loop, accepted.release(), NEFlowMetaData{"app"},
                                      IPv4Endpoint{0xCB007101, 80}),
          std::move(client)};
}

/// A connection under test that writes down its states.
class Outbound {
 public:
  explicit Outbound(std::shared_ptr<NWConnection> connection) : connection_(std::move(connection)) {
    connection_->setStateUpdateHandler([log = log_](const NWConnection::State& state) {
      std::string text = NWConnection::State{state.kind, std::nullopt}.description();
      if (state.error) text += fmt::format(" {} {}", state.error->domain(), state.error->code());
      const std::scoped_lock lock(log->mutex);
      log->states.push_back(std::move(text));
    });
  }

  void start(const std::shared_ptr<DispatchQueue>& queue) const { connection_->start(queue); }
  [[nodiscard]] Awaited<Error> send(std::string_view text) const {
    const Awaited<Error> sent;
    connection_->send(Data::copying(text), NWConnection::ContentContext::defaultMessage, true,
                      [sent](const Error& error) { sent.set(error); });
    return sent;
  }
  [[nodiscard]] Awaited<Read> receive() const {
    const Awaited<Read> received;
    connection_->receive(1, 2048, [received](auto data, auto, bool isComplete, const Error& error) {
      received.set({std::move(data), error, isComplete});
    });
    return received;
  }
  void cancel() const { connection_->cancel(); }

  /// The states so far: names, with the error's number where there is one.
  [[nodiscard]] std::vector<std::string> states() const {
    const std::scoped_lock lock(log_->mutex);
    return log_->states;
  }
  /// Waits until the connection has come to a state that begins with this text.
  [[nodiscard]] bool reaches(const std::string& state) const {
    return eventually([&] {
      const auto reached = states();
      return !reached.empty() && reached.back().starts_with(state);
    });
  }

 private:
  struct Log {
    std::mutex mutex;
    std::vector<std::string> states;
  };
  std::shared_ptr<NWConnection> connection_;
  std::shared_ptr<Log> log_ = std::make_shared<Log>();
};

/// A loop with what the objects on it need; no descriptor of a test is left behind on it.
class LoopTest : public testing::Test {
 protected:
  void SetUp() override { before_ = openDescriptors(); }
  void TearDown() override {
    // What else was open for a moment when the test began may have gone.
    EXPECT_TRUE(eventually([this] { return openDescriptors() <= before_; }))
        << openDescriptors() << " descriptors are open, not " << before_;
    settle();  // from here on nobody comes to the loop any more
    loop_.reset();
  }

  /// Returns once the loop has seen whatever was ready when this was called.
  void passThrough() const {
    // Twice: the first block may run in the turn that had looked before.
    for (int turn = 0; turn < 2; ++turn) {
      const Awaited<bool> passed;
      loop().post([passed] { passed.set(true); });
      static_cast<void>(passed.get());
    }
  }
  /// The same on whatever queue is in use.
  void settle() const {
    passThrough();
    passThrough();
    for (const auto& queue : queues_) queue->sync([] {});
  }

  [[nodiscard]] EpollLoop& loop() const { return *loop_; }
  [[nodiscard]] Resolver& resolver() { return resolver_; }
  /// A queue pinned to the loop, or a free one.
  [[nodiscard]] std::shared_ptr<DispatchQueue> queue(bool isPinned = true) {
    return queues_.emplace_back(
        DispatchQueue::serial("queue", isPinned ? std::make_shared<Pin>(loop()) : nullptr));
  }
  /// A connection that has been started.
  [[nodiscard]] Outbound outbound(bool isPinned, const std::string& host, std::uint16_t port,
                                  const NWParameters& parameters = NWParameters::tcp()) {
    const Outbound connection(makeSocketConnection(
        NWEndpoint::hostPort(NWEndpoint::Host::name(host), NWEndpoint::Port(port)), parameters,
        {.resolver = resolver_, .ports = ports_, .connections = connections_}, loop()));
    connection.start(queue(isPinned));
    return connection;
  }

 private:
  class Pin final : public LoopAffinity {
   public:
    explicit Pin(EpollLoop& loop) : loop_(loop) {}
    [[nodiscard]] EventLoop& loop() const noexcept override { return loop_; }

   private:
    EpollLoop& loop_;
  };

  Resolver resolver_;
  OutboundPorts ports_;
  OutboundConnections connections_;
  std::unique_ptr<EpollLoop> loop_ = EpollLoop::make("test-loop").value();
  std::vector<std::shared_ptr<DispatchQueue>> queues_;
  std::size_t before_ = 0;
};

}  // namespace tandor::test
