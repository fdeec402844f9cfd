#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Support.h"
#include "platform/dispatch/DispatchQueue.h"
#include "platform/linux/EpollLoop.h"
#include "platform/linux/Resolver.h"
#include "platform/linux/SocketTCPFlow.h"
#include "platform/network/NWConnection.h"

namespace tandor::test {

// The platform's objects, made over real sockets and called in the way of a test: each call returns
// what its completion will bring.

struct Read {
  std::optional<Data> data;
  Error error;
  bool isComplete = false;  // of a connection

  [[nodiscard]] std::string text() const {
    return data ? std::string(data->characters()) : std::string();
  }
};

[[nodiscard]] Awaited<Error> open(NEAppProxyFlow& flow);
[[nodiscard]] Awaited<Read> read(NEAppProxyTCPFlow& flow);
[[nodiscard]] Awaited<Error> write(NEAppProxyTCPFlow& flow, std::string_view text);
void close(NEAppProxyFlow& flow, const Error& error = std::nullopt);

struct TCPFlow {
  std::shared_ptr<SocketTCPFlow> flow;
  Peer app;
};

/// A flow that is not yet open. The kernel buffers no more than `buffer` bytes a direction if that
/// is given.
[[nodiscard]] TCPFlow makeTCPFlow(EpollLoop& loop, int buffer = 0);

/// A connection under test that writes down its states.
class Outbound {
 public:
  Outbound(EpollLoop& loop, Resolver& resolver, const NWEndpoint& endpoint,
           const NWParameters& parameters);

  void start(const std::shared_ptr<DispatchQueue>& queue) const { connection_->start(queue); }
  [[nodiscard]] Awaited<Error> send(std::string_view text) const;
  [[nodiscard]] Awaited<Read> receive(std::size_t minimum = 1, std::size_t maximum = 2048) const;
  void cancel() const { connection_->cancel(); }

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

/// A loop with what the objects on it need; no descriptor of a test is left behind on it.
class LoopTest : public testing::Test {
 protected:
  void SetUp() override { before_ = openDescriptors(); }
  void TearDown() override;

  /// Returns once the loop has seen whatever was ready when this was called.
  void passThrough() const;
  /// The same on whatever queue is in use.
  void settle() const;

  [[nodiscard]] EpollLoop& loop() const { return *loop_; }
  [[nodiscard]] Resolver& resolver() { return resolver_; }
  /// A queue pinned to the loop, or a free one.
  [[nodiscard]] std::shared_ptr<DispatchQueue> queue(bool isPinned = true);
  [[nodiscard]] Outbound outbound(const NWEndpoint& endpoint,
                                  const NWParameters& parameters = NWParameters::tcp()) {
    return {loop(), resolver_, endpoint, parameters};
  }

 private:
  Resolver resolver_;
  std::unique_ptr<EpollLoop> loop_ = EpollLoop::make("test-loop").value();
  std::vector<std::shared_ptr<DispatchQueue>> queues_;
  std::size_t before_ = 0;
};

[[nodiscard]] NWEndpoint endpointOf(const std::string& host, std::uint16_t port);

}  // namespace tandor::test
