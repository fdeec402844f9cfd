#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <memory>
#include <span>
#include <sys/socket.h>
#include <sys/uio.h>
#include <utility>
#include <vector>

#include <libmnl/libmnl.h>

#include "platform/linux/EpollLoop.h"
#include "platform/linux/FlowKey.h"

namespace tandor {

/// The kernel's queue of held packets. Messages come and verdicts go in batches, one system call
/// each. Lives on a loop.
class PacketQueue final : private EpollLoop::Source {
  using Socket = std::unique_ptr<mnl_socket, int (*)(mnl_socket*)>;

 public:
  /// A packet that waits for its verdict.
  struct Packet {
    std::uint32_t id;
    std::uint32_t mark;
    std::uint32_t interface;  // by which it leaves
    FlowKey flow;             // protocol 0 when the packet is not understood
  };

  /// Owns a queue for as long as it lives, and lets all packets pass: nobody else can come to own
  /// it meanwhile.
  class Hold {
   public:
    /// Fails with an error number: EPERM when somebody owns the queue.
    [[nodiscard]] static std::expected<Hold, int> make(std::uint16_t number);

   private:
    explicit Hold(Socket socket) : socket_(std::move(socket)) {}
    Socket socket_;
  };

  class Owner {
   public:
    Owner() = default;
    Owner(const Owner&) = delete;
    Owner& operator=(const Owner&) = delete;
    /// A packet arrived. Its verdict may come at once or later.
    virtual void packetArrived(const Packet& packet) = 0;
    /// The packets that had their verdicts have gone on.
    virtual void packetsWentOn() = 0;

   protected:
    ~Owner() = default;
  };

  /// Binds the queue with the given number. Fails with an error number. On the loop's thread, like
  /// everything else here.
  [[nodiscard]] static std::expected<std::unique_ptr<PacketQueue>, int> make(EpollLoop& loop,
                                                                             std::uint16_t number,
                                                                             Owner& owner);
  PacketQueue(const PacketQueue&) = delete;
  PacketQueue& operator=(const PacketQueue&) = delete;
  ~PacketQueue();

  /// Lets the packet go on: untouched for leaveMark, else with `decision` in our nibble of its mark
  /// and its other bits unchanged. Leaves with the other verdicts of this turn.
  void accept(const Packet& packet, std::uint32_t decision);
  /// Has the owner see every packet that waits, and sends the verdicts: what has none when the
  /// queue goes, the kernel drops. Once nothing is queued any more.
  void drain();

 private:
  static constexpr int batchSize = 64;
  static constexpr std::size_t messageSize = 1024;  // headers and the copied bytes of one packet

  PacketQueue(EpollLoop& loop, Socket socket, std::uint16_t number, Owner& owner);

  void ready(std::uint32_t events) override;
  void receive();
  /// Handles what one system call brings; how many messages that were, negative for an error.
  int receiveSome();
  void sendVerdicts();
  void handle(const nlmsghdr& message);

  EpollLoop& loop_;
  Owner& owner_;
  Socket socket_;
  const std::uint16_t number_;
  std::vector<std::array<std::byte, messageSize>> messages_;
  std::vector<iovec> pieces_;     // of one message each,
  std::vector<mmsghdr> headers_;  // and what a read of all of them takes
  std::vector<std::byte> verdicts_;
  EpollLoop::Task receive_{EpollLoop::Call::to<&PacketQueue::receive>(this)};
  EpollLoop::Task send_{EpollLoop::Call::to<&PacketQueue::sendVerdicts>(this)};
};

}  // namespace tandor
