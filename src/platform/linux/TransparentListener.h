#pragma once

#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <vector>

#include "platform/linux/AnnouncedFlows.h"
#include "platform/linux/EpollLoop.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/FlowAnswers.h"

namespace tandor {

/// The sockets of one loop at which taken packets arrive, still addressed to their destination:
/// accepted connections and first datagrams are joined with the flows that admission announced;
/// whatever was not announced is refused. Belongs to the loop's thread.
class TransparentListener final : public EpollLoop::Resident {
 public:
  /// Listens at `port` of the loopback address, as one of several loops that share it. `answers`
  /// outlives it. Fails with an error number.
  [[nodiscard]] static std::expected<std::shared_ptr<TransparentListener>, int> make(
      EpollLoop& loop, std::uint16_t port, std::shared_ptr<AnnouncedFlows> flows,
      FlowAnswers& answers);

  TransparentListener(EpollLoop& loop, std::shared_ptr<AnnouncedFlows> flows, FlowAnswers& answers,
                      FileDescriptor tcp, FileDescriptor udp);
  ~TransparentListener() override;
  TransparentListener(const TransparentListener&) = delete;
  TransparentListener& operator=(const TransparentListener&) = delete;

  /// Stops listening. On the loop's thread.
  void close() noexcept;

 private:
  /// Routes the readiness of one of the two sockets.
  class Socket final : public EpollLoop::Source {
   public:
    Socket(FileDescriptor descriptor, EpollLoop::Call onReadable) noexcept
        : descriptor_(std::move(descriptor)), onReadable_(onReadable) {}
    void ready(std::uint32_t events) override {
      if ((events & EPOLLIN) != 0) onReadable_();
    }
    [[nodiscard]] int get() const noexcept { return descriptor_.get(); }
    void close(EpollLoop& loop) noexcept;

   private:
    FileDescriptor descriptor_;
    EpollLoop::Call onReadable_;
  };

  [[nodiscard]] int watch();
  void accept();
  void receive();
  void attachNew(const std::shared_ptr<SocketUDPFlow>& flow);

  std::shared_ptr<AnnouncedFlows> flows_;
  FlowAnswers& answers_;
  Socket tcp_;
  Socket udp_;
  /// Flows whose first datagram came just now; their sockets are read after the listener is empty.
  std::vector<std::pair<std::shared_ptr<SocketUDPFlow>, FileDescriptor>> arriving_;
  EpollLoop::Timer retry_;
};

}  // namespace tandor
