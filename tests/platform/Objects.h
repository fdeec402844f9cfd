#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Support.h"
#include "platform/dispatch/DispatchQueue.h"
#include "platform/linux/EpollLoop.h"
#include "platform/linux/Resolver.h"
#include "platform/linux/SocketTCPFlow.h"
#include "platform/linux/SocketUDPFlow.h"
#include "platform/network/NWConnection.h"

namespace tandor::test {

// The platform's objects, made over real sockets and called in the way of a test: each call returns
// what its completion will bring.

struct Read {
  std::optional<Data> data;
  Error error;

  [[nodiscard]] std::string text() const {
    return data ? std::string(data->characters()) : std::string();
  }
  /// Whether this is the end of the stream, in order.
  [[nodiscard]] bool isEnd() const { return data && data->isEmpty() && !error; }
};

struct ReadDatagrams {
  std::optional<std::vector<std::string>> datagrams;
  std::vector<NWHostEndpoint> endpoints;
  Error error;
};

[[nodiscard]] Awaited<Error> open(NEAppProxyFlow& flow);
[[nodiscard]] Awaited<Read> read(NEAppProxyTCPFlow& flow);
[[nodiscard]] Awaited<Error> write(NEAppProxyTCPFlow& flow, std::string_view text);
[[nodiscard]] Awaited<ReadDatagrams> read(NEAppProxyUDPFlow& flow);
[[nodiscard]] Awaited<Error> write(NEAppProxyUDPFlow& flow, const std::vector<std::string>& texts);
void close(NEAppProxyFlow& flow, const Error& error = std::nullopt);

/// Writes the pattern from its beginning, each piece when the one before is accepted, and returns
/// how many bytes were. Stops before `count` when `settle` has seen everything happen that can and
/// yet a write is not answered; that one is left in `held`.
template <typename Write, typename Settle>
[[nodiscard]] std::size_t writePattern(std::size_t count, Write write, Settle settle,
                                       std::optional<Awaited<Error>>& held) {
  constexpr std::size_t piece = 16'384;
  std::size_t accepted = 0;
  while (accepted < count) {
    const Awaited<Error> written = write(pattern(std::min(piece, count - accepted), accepted));
    settle();
    if (!written.isSet()) {
      held = written;
      return accepted;
    }
    EXPECT_EQ(codeOf(written.get()), 0);
    accepted += piece;
  }
  return accepted;
}

template <typename Flow>
struct FlowWithApp {
  std::shared_ptr<Flow> flow;
  Peer app;
};
using TCPFlow = FlowWithApp<SocketTCPFlow>;
using UDPFlow = FlowWithApp<SocketUDPFlow>;

/// Flows of the application `app` towards `remote`, not yet open. The kernel buffers no more than
/// `buffer` bytes a direction if that is given.
[[nodiscard]] TCPFlow makeTCPFlow(EpollLoop& loop, int buffer = 0, const std::string& app = "app",
                                  const NWHostEndpoint& remote = {"203.0.113.1", "80"});
[[nodiscard]] UDPFlow makeUDPFlow(EpollLoop& loop, const std::string& app = "app",
                                  const NWHostEndpoint& remote = {"203.0.113.1", "53"});

struct Received {
  std::optional<Data> data;
  bool isComplete = false;
  Error error;

  [[nodiscard]] std::string text() const {
    return data ? std::string(data->characters()) : std::string();
  }
};

/// A connection under test that writes down its states.
class Outbound {
 public:
  Outbound(EpollLoop& loop, Resolver& resolver, const NWEndpoint& endpoint,
           const NWParameters& parameters);

  void start(const std::shared_ptr<DispatchQueue>& queue) const { connection_->start(queue); }
  [[nodiscard]] Awaited<Error> send(std::string_view text) const;
  [[nodiscard]] Awaited<Received> receive(std::size_t minimum = 1,
                                          std::size_t maximum = 2048) const;
  void cancel() const { connection_->cancel(); }
  /// Lets go of the connection.
  void drop() { connection_ = nullptr; }
  [[nodiscard]] NWConnection& connection() const { return *connection_; }

  /// The states so far: names, with the error's number where there is one.
  [[nodiscard]] std::vector<std::string> states() const;
  /// Waits until the connection has come to a state that begins with this text.
  [[nodiscard]] bool reaches(const std::string& state) const;

 private:
  struct Log {
    std::mutex mutex;
    std::vector<std::string> states;
  };
  std::shared_ptr<NWConnection> connection_;
  std::shared_ptr<Log> log_ = std::make_shared<Log>();
};

[[nodiscard]] NWEndpoint endpointOf(const SocketAddress& address);

/// A loop with what the objects on it need; nothing of a test stays on it.
class LoopTest : public DescriptorTest {
 protected:
  void SetUp() override {
    loop_ = EpollLoop::make("test-loop").value();
    DescriptorTest::SetUp();
  }
  void TearDown() override {
    DescriptorTest::TearDown();
    settle();  // from here on nobody comes to the loop any more
    loop_.reset();
  }
  /// Returns once everything that was ready has been handled, on whatever queue.
  virtual void settle() const {
    passThrough(loop());
    passThrough(loop());
  }

  [[nodiscard]] EpollLoop& loop() const { return *loop_; }
  [[nodiscard]] Resolver& resolver() { return resolver_; }
  /// A queue pinned to the loop.
  [[nodiscard]] std::shared_ptr<DispatchQueue> pinnedQueue() const;
  [[nodiscard]] Outbound outbound(const NWEndpoint& endpoint,
                                  const NWParameters& parameters = NWParameters::tcp()) {
    return {loop(), resolver_, endpoint, parameters};
  }

 private:
  Resolver resolver_;
  std::unique_ptr<EpollLoop> loop_;
};

}  // namespace tandor::test
