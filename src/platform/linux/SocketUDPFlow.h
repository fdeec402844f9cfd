#pragma once

#include <memory>
#include <optional>

#include "platform/linux/DatagramSocket.h"
#include "platform/linux/EpollLoop.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/networkextension/NEAppProxyFlow.h"

namespace tandor {

/// An application's UDP flow, over a socket that is bound to the flow's destination and connected
/// to the application. Lives on a loop; may be called from any thread. Empty datagrams of the
/// application are dropped: to a reader they would be the end of the flow.
class SocketUDPFlow final : public NEAppProxyUDPFlow,
                            public LoopAffinity,
                            public EpollLoop::Resident,
                            private DatagramSocket::Owner {
 public:
  /// `socket` is connected to the application and non-blocking; `remoteEndpoint` is the destination
  /// that the application sends to.
  SocketUDPFlow(EpollLoop& loop, FileDescriptor socket, NEFlowMetaData metaData,
                NWHostEndpoint remoteEndpoint);

  [[nodiscard]] EventLoop& loop() const noexcept override { return loop_; }
  [[nodiscard]] const NEFlowMetaData& metaData() const override { return metaData_; }
  [[nodiscard]] std::shared_ptr<LoopAffinity> affinity() override { return {self(), this}; }
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

  void close(bool& isDirectionClosed, const std::optional<NSError>& error);
  void answer();

  EpollLoop& loop_;
  const NEFlowMetaData metaData_;
  const NWHostEndpoint remoteEndpoint_;

  FileDescriptor unopened_;
  DatagramSocket socket_;
  Completion openCompletion_;
  ReadDatagramsCompletion readCompletion_;
  Completion writeCompletion_;
  std::optional<NSError> openError_;
  std::optional<NSError> closeError_;
  bool isReadClosed_ = false;
  bool isWriteClosed_ = false;
  EpollLoop::Task answer_{EpollLoop::Call::to<&SocketUDPFlow::answer>(this)};
};

}  // namespace tandor
