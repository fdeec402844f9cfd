#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "platform/linux/DatagramSocket.h"
#include "platform/linux/EpollLoop.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/InterceptedFlow.h"
#include "platform/networkextension/NEAppProxyFlow.h"

namespace tandor {

/// An application's UDP flow, over a socket that is bound to the flow's destination and connected
/// to the application. Lives on a loop; may be called from any thread. Empty datagrams of the
/// application, which to a reader would be the end of the flow, go to its carrier when everything
/// before them has been sent. An error with which it is closed is told the application.
class SocketUDPFlow final : public NEAppProxyUDPFlow,
                            public InterceptedFlow,
                            private DatagramSocket::Owner {
 public:
  /// A flow whose first datagram is held: its socket follows.
  SocketUDPFlow(Origin origin, FlowRegistry& registry);
  /// `socket` is connected to the application and non-blocking; `remoteEndpoint` is the destination
  /// that the application sends to.
  SocketUDPFlow(EpollLoop& loop, FileDescriptor socket, NEFlowMetaData metaData,
                NWHostEndpoint remoteEndpoint);
  ~SocketUDPFlow() override;
  SocketUDPFlow(const SocketUDPFlow&) = delete;
  SocketUDPFlow& operator=(const SocketUDPFlow&) = delete;

  /// Brings an announced flow to its loop, before its socket. On `loop`.
  void attach(EpollLoop& loop);
  /// Adds a datagram that reached us by another socket than the flow's. On its loop.
  void inject(Data datagram);
  /// Gives an attached flow its socket, which is connected to the application; a closed one fails
  /// its opening, and the application is told that it is refused. On its loop.
  void useSocket(FileDescriptor socket);
  /// Ends the flow as if the application had, after the datagrams that have arrived: its socket is
  /// gone, or it was silent for too long. Once attached; any thread.
  void end();
  /// Gives an announced flow up whose socket never came. On the thread that offered it, or on its
  /// loop.
  void abandon();
  /// Whether an announced flow was closed without having been opened.
  [[nodiscard]] bool isRefused() const noexcept { return isReadClosed_ || isWriteClosed_; }
  /// Called once, on the loop, when the flow's socket has closed.
  void setCloseHandler(std::move_only_function<void()> handler) {
    closeHandler_ = std::move(handler);
  }

  void setCarrier(const std::weak_ptr<Carrier>& carrier) override { carrier_ = carrier; }
  [[nodiscard]] const NEFlowMetaData& metaData() const override { return originMetaData(); }
  [[nodiscard]] std::shared_ptr<LoopAffinity> affinity() override { return makeAffinity(); }
  void open(const std::optional<NWHostEndpoint>& localEndpoint, Completion completion) override;
  void readDatagrams(ReadDatagramsCompletion completion) override;
  void writeDatagrams(std::span<const Data> datagrams, std::span<const NWHostEndpoint> sentBy,
                      Completion completion) override;
  void closeReadWithError(const std::optional<NSError>& error) override;
  void closeWriteWithError(const std::optional<NSError>& error) override;

 private:
  void datagramsDidArrive(std::span<Data> datagrams) override;
  void datagramsDidFail(int error) override;
  void datagramsDidLeave(int error) override;

  void adoptSocket();
  void checkSilence();
  void close(bool& isDirectionClosed, const std::optional<NSError>& error);
  void answer();

  [[nodiscard]] std::uint64_t bytesOut() const noexcept override {
    return socket_ ? socket_->bytesRead() : 0;
  }
  [[nodiscard]] std::uint64_t bytesIn() const noexcept override {
    return socket_ ? socket_->bytesWritten() : 0;
  }

  const NWHostEndpoint remoteEndpoint_;

  FileDescriptor unopened_;
  std::optional<DatagramSocket> socket_;  // once the flow has come to a loop
  std::unique_ptr<EpollLoop::Timer> silence_;
  std::uint64_t datagramsAtLastCheck_ = 0;
  std::weak_ptr<Carrier> carrier_;
  std::move_only_function<void()> closeHandler_;
  Completion openCompletion_;
  ReadDatagramsCompletion readCompletion_;
  Completion writeCompletion_;
  std::optional<NSError> openError_;
  std::optional<NSError> closeError_;
  bool isApplicationGone_ = false;  // its own socket has failed
  bool isReadClosed_ = false;
  bool isWriteClosed_ = false;
  EpollLoop::Task answer_{EpollLoop::Call::to<&SocketUDPFlow::answer>(this)};
};

}  // namespace tandor
