#pragma once

#include <cstdint>
#include <deque>
#include <expected>
#include <functional>
#include <memory>

#include "platform/linux/AnnouncedFlows.h"
#include "platform/linux/EpollLoop.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/FlowAnswers.h"
#include "platform/linux/PacketRules.h"

namespace tandor {

/// The sockets of one loop at which taken packets arrive, still addressed to their destination:
/// accepted connections and first datagrams are joined with the flows that admission announced;
/// whatever was not announced is refused. Belongs to the loop's thread.
class TransparentListener final : public EpollLoop::Resident {
 public:
  /// Listens at `ports` of the loopback address, as one of several loops that share them; where
  /// they are 0, it is the first, and the kernel chooses. `answers` outlives it. Fails with an
  /// error number.
  [[nodiscard]] static std::expected<std::shared_ptr<TransparentListener>, int> make(
      EpollLoop& loop, const ListenerPorts& ports, std::shared_ptr<AnnouncedFlows> flows,
      FlowAnswers& answers);

  TransparentListener(EpollLoop& loop, std::shared_ptr<AnnouncedFlows> flows, FlowAnswers& answers,
                      FileDescriptor tcp, FileDescriptor udp);
  ~TransparentListener() override;
  TransparentListener(const TransparentListener&) = delete;
  TransparentListener& operator=(const TransparentListener&) = delete;

  /// As long as it listens.
  [[nodiscard]] ListenerPorts ports() const noexcept;
  /// Stops listening; flows that are arriving fail. On the loop's thread.
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
  /// Reads one datagram; false when there is none.
  [[nodiscard]] bool receiveOne();
  void attachNew(const std::shared_ptr<SocketUDPFlow>& flow);
  /// Gives the first flow that is arriving its socket.
  void completeArrival();

  std::shared_ptr<AnnouncedFlows> flows_;
  FlowAnswers& answers_;
  Socket tcp_;
  Socket udp_;
  /// A flow whose first datagram came just now, with its socket. From when that was made, its
  /// datagrams go there; those that wait here by then are read first.
  struct Arrival {
    std::shared_ptr<SocketUDPFlow> flow;
    FileDescriptor socket;
    std::uint64_t received;  // when so many datagrams have been received, those have been read
  };
  std::deque<Arrival> arriving_;
  std::uint64_t received_ = 0;  // datagrams
  EpollLoop::Timer acceptLater_;
  EpollLoop::Timer receiveLater_;
};

}  // namespace tandor
