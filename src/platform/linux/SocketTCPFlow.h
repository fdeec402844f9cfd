#pragma once

#include <chrono>
#include <memory>
#include <optional>

#include "platform/linux/EpollLoop.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/InterceptedFlow.h"
#include "platform/linux/StreamSocket.h"
#include "platform/networkextension/NEAppProxyFlow.h"

namespace tandor {

/// An application's TCP flow, over the socket that stands at its other end. Lives on a loop; may be
/// called from any thread.
class SocketTCPFlow final : public NEAppProxyTCPFlow,
                            public InterceptedFlow,
                            private StreamSocket::Owner {
 public:
  /// A flow whose first packet is held: its socket follows.
  SocketTCPFlow(Origin origin, FlowRegistry& registry);
  /// `socket` is connected to the application and non-blocking; `destination` is what the
  /// application asked for.
  SocketTCPFlow(EpollLoop& loop, FileDescriptor socket, NEFlowMetaData metaData,
                const IPv4Endpoint& destination);
  ~SocketTCPFlow() override;
  SocketTCPFlow(const SocketTCPFlow&) = delete;
  SocketTCPFlow& operator=(const SocketTCPFlow&) = delete;

  /// Gives an announced flow its socket, which is connected to the application. On `loop`.
  void attach(EpollLoop& loop, FileDescriptor socket);
  /// Gives an announced flow up: its socket never came. On the thread that offered it.
  void abandon();
  /// Whether an announced flow was closed without having been opened.
  [[nodiscard]] bool isRefused() const noexcept { return isReadClosed_ || isWriteClosed_; }

  void letGo(bool isLate) override;
  /// Whether the application has given the flow up: what it has sent is not all that it meant to.
  [[nodiscard]] bool isGivenUp() const noexcept override { return isGivenUp_; }

  [[nodiscard]] const NEFlowMetaData& metaData() const override { return originMetaData(); }
  [[nodiscard]] NWFlowEndpoint remoteEndpoint() const override;
  [[nodiscard]] std::shared_ptr<LoopAffinity> affinity() override { return makeAffinity(); }
  void open(const std::optional<NWHostEndpoint>& localEndpoint, Completion completion) override;
  void readData(ReadCompletion completion) override;
  void write(Data data, Completion completion) override;
  void closeReadWithError(const std::optional<NSError>& error) override;
  void closeWriteWithError(const std::optional<NSError>& error) override;
  void setDepartureObserver(const std::weak_ptr<NEFlowDepartureObserver>& observer) override;
  void setDeparturePatience(std::chrono::seconds patience) override;

 private:
  class FirstFlight;
  struct Departure;

  void streamDidConnect(int /*error*/) override {}
  void streamDidRead(Data data) override;
  void streamDidEnd(int error) override;
  void streamDidWrite(int error) override;
  void streamDidHangUp() override;
  [[nodiscard]] std::shared_ptr<void> streamReference() override { return self(); }

  void adoptSocket();
  void refuse();
  void close(bool& isDirectionClosed, const std::optional<NSError>& error);
  void deliverFirstFlight();
  void answer();
  void checkDeparture();
  [[nodiscard]] bool isClosed() const noexcept { return isReadClosed_ && isWriteClosed_; }

  [[nodiscard]] std::uint64_t bytesOut() const noexcept override {
    return stream_ ? stream_->bytesRead() : 0;
  }
  [[nodiscard]] std::uint64_t bytesIn() const noexcept override {
    return stream_ ? stream_->bytesWritten() : 0;
  }

  FileDescriptor unopened_;
  std::optional<StreamSocket> stream_;  // once the flow has come to a loop
  struct Opening {
    Completion completion;
    std::optional<NSError> error;
  };
  std::unique_ptr<Opening> opening_;  // present until it is answered
  ReadCompletion readCompletion_;
  Completion writeCompletion_;
  std::optional<NSError> closeError_;
  bool isReadClosed_ = false;
  bool isWriteClosed_ = false;
  bool hasFirstFlight_ = false;
  bool isGivenUp_ = false;
  std::chrono::duration<std::uint16_t> departurePatience_{0};
  std::weak_ptr<NEFlowDepartureObserver> departureObserver_;
  std::unique_ptr<Departure> departure_;      // while the application has ended and nobody reads
  std::unique_ptr<FirstFlight> firstFlight_;  // present while it is incomplete
  /// Runs what an open or a close has to answer.
  EpollLoop::Task answer_{EpollLoop::Call::to<&SocketTCPFlow::answer>(this)};
};

}  // namespace tandor
