#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <sys/socket.h>
#include <vector>

#include "platform/foundation/Data.h"
#include "platform/linux/EpollLoop.h"
#include "platform/linux/FileDescriptor.h"

namespace tandor {

/// Whether closing the socket resets its connection, also when the process ends without a word.
void setResetOnClose(const FileDescriptor& socket, bool isReset) noexcept;

/// A connected stream socket on a loop: reads large pieces and hands out slices of them, gathers
/// what is written and sends it in one call a turn. Belongs to the loop's thread throughout.
/// Until it is finished it resets its connection when it closes: a relay that was killed must not
/// look like the end of what it carried.
///
/// One read and one write may be outstanding. No callback runs inside the call that it answers.
class StreamSocket final : private EpollLoop::Source {
 public:
  /// Whoever embeds the socket. Errors are numbers of the system; 0 is none.
  class Owner {
   public:
    Owner() = default;
    Owner(const Owner&) = delete;
    Owner& operator=(const Owner&) = delete;

    virtual void streamDidConnect(int error) = 0;
    /// A read brought bytes, at least one.
    virtual void streamDidRead(Data data) = 0;
    /// A read found the end of the stream, or failed.
    virtual void streamDidEnd(int error) = 0;
    /// A write was accepted, or failed.
    virtual void streamDidWrite(int error) = 0;
    /// The peer has ended its side, or reset the connection, and nobody reads. May come again.
    virtual void streamDidHangUp() {}
    /// A reference that keeps the owner, and the socket in it, alive.
    [[nodiscard]] virtual std::shared_ptr<void> streamReference() = 0;

   protected:
    ~Owner() = default;
  };

  /// Bytes that may wait in memory to be sent before a write is held back.
  static constexpr std::size_t outputBound = std::size_t{64} * 1024;

  StreamSocket(EpollLoop& loop, Owner& owner) noexcept;
  StreamSocket(const StreamSocket&) = delete;
  StreamSocket& operator=(const StreamSocket&) = delete;
  ~StreamSocket();

  /// Sets what every socket of a stream must have; sockets that a listener accepts inherit it.
  static void prepare(const FileDescriptor& socket) noexcept;
  /// Takes a prepared, connected, non-blocking socket. Returns an error number.
  [[nodiscard]] int adopt(FileDescriptor socket);
  /// Takes a non-blocking socket and connects it; streamDidConnect answers unless an error number
  /// is returned.
  [[nodiscard]] int connect(FileDescriptor socket, const sockaddr& address, socklen_t length);

  /// Asks for 1 to `maximum` bytes.
  void read(std::size_t maximum);
  /// Takes back a read that is not answered: what comes in waits for the next one.
  void stopReading() noexcept { isReadWanted_ = false; }
  /// Sends `data` after everything written before; accepted at once under the bound. A peer that
  /// resets the connection may have answered before: the write that fails for it is told once the
  /// answer has been read, or nobody reads on.
  void write(Data data);

  /// Ends the sending side once what was written has left; reading goes on.
  void finishWriting();
  /// A program of this machine may pause for as long as it likes; it is gone when its socket is.
  enum class Peer : std::uint8_t { remote, local };
  /// Ends the stream in order: what was written is sent, then the end of the stream; what still
  /// comes in is thrown away, so that it provokes no reset, unless it does not end. The owner hears
  /// no more and is kept alive until that is done; a remote peer that takes nothing is waited for
  /// only so long.
  void finish(Peer peer = Peer::remote) { finish(peer, Ending::inOrder); }
  /// The same for a stream that has failed: a reset follows the last bytes, once the peer has them.
  void finishWithReset(Peer peer) { finish(peer, Ending::reset); }
  /// Hurries a stream that is being finished: closes it once the peer has everything. When it is
  /// late, resets it, whatever it was about.
  void letGo(bool isLate);
  /// Resets the connection. The owner hears no more.
  void reset();
  /// The same, behind what can be sent at once.
  void abort();

  [[nodiscard]] bool isOpen() const noexcept { return socket_.isOpen(); }
  /// Whether the connection is no more, by the peer's reset or the kernel's giving up.
  [[nodiscard]] bool wasReset() const noexcept;
  [[nodiscard]] int descriptor() const noexcept { return socket_.get(); }
  /// Bytes read from and sent to the peer. Any thread.
  [[nodiscard]] std::uint64_t bytesRead() const noexcept {
    return bytesRead_.load(std::memory_order_relaxed);
  }
  [[nodiscard]] std::uint64_t bytesWritten() const noexcept {
    return bytesWritten_.load(std::memory_order_relaxed);
  }

 private:
  enum class Phase : std::uint8_t { idle, connecting, open, finishing, closed };
  enum class Ending : std::uint8_t { inOrder, reset };

  void ready(std::uint32_t events) override;
  /// Answers what can be answered: a write that was accepted, a read from the bytes at hand.
  void complete();
  /// Flushes what was written, then reads if bytes are wanted.
  void transfer();
  void flush();
  /// Sends from `first` on what one system call takes, and returns what it returned; `asked` is how
  /// much that was.
  [[nodiscard]] ssize_t sendSome(std::size_t first, std::size_t& asked);
  void fill();
  /// Sends the last word of the handshake by itself when no bytes come that could take it along.
  void greet();
  [[nodiscard]] ssize_t receiveIntoMemory();
  [[nodiscard]] ssize_t receiveIntoPipe(PipePool::Pipe& pipe);
  [[nodiscard]] Data takeInput();
  void dropInput() noexcept;
  void failWriting(int error);
  /// Whether a write that failed is to be told: there is no answer left that somebody could read.
  /// If there may be, a timer runs from here on.
  [[nodiscard]] bool isFailureDue();
  void checkHeldFailure();
  void finish(Peer peer, Ending ending);
  void linger();
  void lingerTimeout();
  /// Resets as soon as the peer has everything.
  void awaitReset();
  void discardInput();
  /// Bytes that the peer has not acknowledged; the end of the stream counts as one.
  [[nodiscard]] std::size_t undelivered() const noexcept;
  void close() noexcept;
  [[nodiscard]] bool isOutputAccepted() const noexcept;

  EpollLoop& loop_;
  Owner& owner_;
  FileDescriptor socket_;
  Phase phase_ = Phase::idle;

  // Reading.
  bool isReadWanted_ = false;
  bool isReadable_ = false;  // the socket may hold bytes: nothing has shown the contrary
  /// The end of the stream, an error or an urgent byte was announced: a short read may be followed
  /// by more that no edge announces.
  bool isReadUntilEmpty_ = false;
  bool isBulk_ = false;    // the last read brought much: the next goes through a pipe
  bool hasEnded_ = false;  // a read has seen the end, or readError_
  bool wasRead_ = false;   // somebody has asked for bytes
  int readError_ = 0;
  std::uint32_t readMaximum_ = 0;
  Data input_;  // read but not yet handed out

  // Writing.
  std::uint8_t greetingPatience_ = 0;  // steps that the last word of the handshake may still wait
  bool isWriteWanted_ = false;         // a write waits for its answer
  bool isWritable_ = false;
  bool isWriteEnding_ = false;  // the sending side is shut down when all has left
  int writeError_ = 0;
  std::size_t outputBytes_ = 0;
  std::vector<Data> output_;

  EpollLoop::Task completion_{EpollLoop::Call::to<&StreamSocket::complete>(this)};
  EpollLoop::Task transfer_{EpollLoop::Call::to<&StreamSocket::transfer>(this)};

  /// Only the loop counts, so no read-modify-write is needed; others may read.
  static void addTo(std::atomic<std::uint64_t>& counter, std::size_t bytes) noexcept {
    counter.store(counter.load(std::memory_order_relaxed) + bytes, std::memory_order_relaxed);
  }
  std::atomic<std::uint64_t> bytesRead_{0};
  std::atomic<std::uint64_t> bytesWritten_{0};

  struct HeldFailure;
  std::unique_ptr<HeldFailure> heldFailure_;  // present while a failed write is not told
  struct Linger;
  std::unique_ptr<Linger> linger_;  // present while finishing
};

}  // namespace tandor
