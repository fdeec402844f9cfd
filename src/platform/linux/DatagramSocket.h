#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/foundation/Data.h"
#include "platform/linux/EpollLoop.h"
#include "platform/linux/FileDescriptor.h"

namespace tandor {

/// Gives a datagram socket room for `bytes` that come while its loop is busy. An application that
/// sends a burst would lose none of it in its own machine; we stand between and must not lose it
/// either.
void makeRoomForBursts(const FileDescriptor& socket, int bytes);

/// Room for one flow; taken only while datagrams wait.
inline constexpr int roomForOneFlow = 1024 * 1024;

/// A connected datagram socket on a loop: datagrams come and go in batches, one system call each.
/// Belongs to the loop's thread throughout. One read and one write may be outstanding. No callback
/// runs inside the call that it answers.
class DatagramSocket final : private EpollLoop::Source {
 public:
  /// Whoever embeds the socket. Errors are numbers of the system; 0 is none.
  class Owner {
   public:
    Owner() = default;
    Owner(const Owner&) = delete;
    Owner& operator=(const Owner&) = delete;

    /// A read brought datagrams, at least one: none that is empty, or nothing but empty ones. The
    /// owner may move them out.
    virtual void datagramsDidArrive(std::span<Data> datagrams) = 0;
    /// A read failed, or (0) found the end after endAfterInput().
    virtual void datagramsDidFail(int error) = 0;
    /// A write was accepted, or failed.
    virtual void datagramsDidLeave(int error) = 0;

   protected:
    ~Owner() = default;
  };

  /// What may wait to be sent before a write is held back, in bytes with a header each.
  static constexpr std::size_t outputBound = std::size_t{64} * 1024;

  DatagramSocket(EpollLoop& loop, Owner& owner) noexcept : loop_(loop), owner_(owner) {}
  DatagramSocket(const DatagramSocket&) = delete;
  DatagramSocket& operator=(const DatagramSocket&) = delete;
  ~DatagramSocket() { close(); }

  /// Takes a connected, non-blocking socket. Returns an error number.
  [[nodiscard]] int adopt(FileDescriptor socket);

  /// Asks for 1 to `maximum` datagrams.
  void read(std::size_t maximum);
  /// Sends the datagrams after those written before; accepted at once under the bound. What the
  /// network cannot carry (too long, no buffer) is lost, as datagrams are.
  void write(std::span<const Data> datagrams);
  /// Sends one more after those written before, without an answer; lost when too much waits.
  void writeUnanswered(Data datagram);
  /// Adds a datagram that reached us by another socket, as if this one had received it now.
  void inject(Data datagram);

  /// Says that nobody sends any more: once what has arrived is read, reads find the end.
  void endAfterInput();
  /// Sends what still can be sent, and closes. The owner hears no more.
  void finish();
  [[nodiscard]] bool isOpen() const noexcept { return socket_.isOpen(); }
  [[nodiscard]] int descriptor() const noexcept { return socket_.get(); }
  /// How many datagrams, empty ones included, came and went. On the loop.
  [[nodiscard]] std::uint64_t datagrams() const noexcept { return datagrams_; }
  [[nodiscard]] std::uint64_t bytesRead() const noexcept {
    return bytesRead_.load(std::memory_order_relaxed);
  }
  [[nodiscard]] std::uint64_t bytesWritten() const noexcept {
    return bytesWritten_.load(std::memory_order_relaxed);
  }

 private:
  void ready(std::uint32_t events) override;
  void complete();
  void transfer();
  void flush();
  void fill();
  void close() noexcept;
  void append(Data datagram);
  void take(Data datagram);
  /// How much of the bound a datagram takes: of empty ones, too, only so many may wait.
  [[nodiscard]] static std::size_t weight(const Data& datagram) noexcept {
    constexpr std::size_t header = 64;
    return datagram.count() + header;
  }
  [[nodiscard]] bool isOutputAccepted() const noexcept { return outputWeight_ <= outputBound; }

  EpollLoop& loop_;
  Owner& owner_;
  FileDescriptor socket_;

  bool isReadWanted_ = false;
  bool isReadable_ = false;
  bool isEnding_ = false;
  bool hasEnded_ = false;
  int readError_ = 0;  // told once
  std::size_t readMaximum_ = 0;
  std::vector<Data> input_;  // from inputFirst_ on: read but not yet handed out
  std::size_t inputFirst_ = 0;

  bool isWriteWanted_ = false;
  bool isWritable_ = false;
  int writeError_ = 0;  // told once
  std::size_t outputWeight_ = 0;
  std::vector<Data> output_;

  EpollLoop::Task completion_{EpollLoop::Call::to<&DatagramSocket::complete>(this)};
  EpollLoop::Task transfer_{EpollLoop::Call::to<&DatagramSocket::transfer>(this)};

  /// Only the loop counts, so no read-modify-write is needed; others may read.
  static void addTo(std::atomic<std::uint64_t>& counter, std::size_t bytes) noexcept {
    counter.store(counter.load(std::memory_order_relaxed) + bytes, std::memory_order_relaxed);
  }
  std::uint64_t datagrams_ = 0;
  std::atomic<std::uint64_t> bytesRead_{0};
  std::atomic<std::uint64_t> bytesWritten_{0};
};

}  // namespace tandor
