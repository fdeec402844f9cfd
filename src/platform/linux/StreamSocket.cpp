#include "platform/linux/StreamSocket.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/uio.h>
#include <utility>

namespace tandor {
namespace {

/// A read that brings so much is one of many.
constexpr std::size_t bulk = std::size_t{32} * 1024;

/// Pieces that may wait as slices of read buffers. Behind them small ones are copied: a trickle
/// towards a slow reader would otherwise hold a whole buffer a piece.
constexpr std::size_t slicesThatMayWait = 4;
constexpr std::size_t smallSlice = BufferPool::bufferSize / 4;

/// How often others have their turn before a new connection is one that has nothing to say yet:
/// once for who is told of it to ask for bytes, once for these to be read.
constexpr std::uint8_t stepsToFirstBytes = 3;

/// How long an outbound connection is silent before its peer is asked whether it still is there.
/// The application's own probes end at our socket.
constexpr int silenceBeforeProbes = 120;  // seconds

void setKeepAlive(const FileDescriptor& socket) noexcept {
  const int on = 1;
  ::setsockopt(socket.get(), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
  ::setsockopt(socket.get(), IPPROTO_TCP, TCP_KEEPIDLE, &silenceBeforeProbes,
               sizeof silenceBeforeProbes);
}

void setPromptAcknowledgement(const FileDescriptor& socket, bool isPrompt) noexcept {
  const int option = isPrompt ? 1 : 0;
  ::setsockopt(socket.get(), IPPROTO_TCP, TCP_QUICKACK, &option, sizeof option);
}

}  // namespace

void setResetOnClose(const FileDescriptor& socket, bool isReset) noexcept {
  const linger option{.l_onoff = isReset ? 1 : 0, .l_linger = 0};
  ::setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &option, sizeof option);
}

void StreamSocket::prepare(const FileDescriptor& socket) noexcept {
  setResetOnClose(socket, true);
  // The kernel would take a byte that is marked urgent out of the stream, and nobody would pass it
  // on.
  const int on = 1;
  ::setsockopt(socket.get(), SOL_SOCKET, SO_OOBINLINE, &on, sizeof on);
}

int StreamSocket::adopt(FileDescriptor socket) {
  if (!loop_.add(socket.get(), *this)) return errno;
  socket_ = std::move(socket);
  phase_ = Phase::open;
  isWritable_ = true;
  isReadable_ = true;
  return 0;
}

int StreamSocket::connect(FileDescriptor socket, const sockaddr& address, socklen_t length) {
  prepare(socket);
  setKeepAlive(socket);
  // The last packet of the handshake waits for the first bytes and goes with them.
  setPromptAcknowledgement(socket, false);
  if (::connect(socket.get(), &address, length) != 0 && errno != EINPROGRESS) return errno;
  if (!loop_.add(socket.get(), *this)) return errno;
  socket_ = std::move(socket);
  phase_ = Phase::connecting;
  return 0;
}

void StreamSocket::read(std::size_t maximum) {
  isReadWanted_ = wasRead_ = true;
  readMaximum_ = static_cast<std::uint32_t>(std::min<std::size_t>(maximum, UINT32_MAX));
  if (!input_.isEmpty() || hasEnded_) {
    loop_.schedule(completion_);
  } else if (isReadable_ && isReadUntilEmpty_ && loop_.isBusy()) {
    // The end, which is about to be found, can leave in one packet with the last bytes.
    loop_.hurry(transfer_);
  } else if (isReadable_) {
    loop_.defer(transfer_);
  }
}

void StreamSocket::write(Data data) {
  isWriteWanted_ = true;
  if (writeError_ == 0 && phase_ == Phase::open && !data.isEmpty()) {
    outputBytes_ += data.count();
    if (output_.empty() || !output_.back().absorb(data)) {
      if (!isWritable_ && output_.size() >= slicesThatMayWait && data.count() < smallSlice)
        data = Data::copying(data.bytes());
      output_.push_back(std::move(data));
    }
    if (isWritable_) loop_.defer(transfer_);
  }
  if (phase_ == Phase::open && !isOutputAccepted()) return;  // answered when enough of it has left
  loop_.schedule(completion_);
}

void StreamSocket::ready(std::uint32_t events) {
  if (phase_ == Phase::connecting) {
    if ((events & (EPOLLOUT | EPOLLERR | EPOLLHUP)) == 0) return;
    int error = 0;
    if ((events & (EPOLLERR | EPOLLHUP)) != 0) {
      socklen_t length = sizeof error;
      ::getsockopt(socket_.get(), SOL_SOCKET, SO_ERROR, &error, &length);
      if (error == 0 && (events & EPOLLHUP) != 0) error = ECONNRESET;
    }
    if (error != 0) {
      close();
      owner_.streamDidConnect(error);
      return;
    }
    phase_ = Phase::open;
    isWritable_ = true;
    isReadable_ = (events & EPOLLIN) != 0;
    isReadUntilEmpty_ = (events & (EPOLLRDHUP | EPOLLPRI)) != 0;
    greetingPatience_ = stepsToFirstBytes;
    loop_.defer(transfer_);
    owner_.streamDidConnect(0);
    return;
  }
  if ((events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR | EPOLLPRI)) != 0)
    isReadUntilEmpty_ = isReadable_ = true;
  if ((events & EPOLLIN) != 0) isReadable_ = true;
  if ((events & (EPOLLOUT | EPOLLHUP | EPOLLERR)) != 0) isWritable_ = true;
  loop_.defer(transfer_);
  if ((events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0 && !isReadWanted_ && phase_ == Phase::open)
    owner_.streamDidHangUp();
}

void StreamSocket::complete() {
  if (isWriteWanted_ && (writeError_ == 0 ? isOutputAccepted() : isFailureDue())) {
    isWriteWanted_ = false;
    owner_.streamDidWrite(writeError_);
  }
  if (!isReadWanted_) return;
  if (!input_.isEmpty()) {
    isReadWanted_ = false;
    owner_.streamDidRead(takeInput());
    if (isReadUntilEmpty_ && !isReadWanted_ && phase_ == Phase::open) owner_.streamDidHangUp();
  } else if (hasEnded_) {
    isReadWanted_ = false;
    owner_.streamDidEnd(readError_);
    if (isWriteWanted_ && writeError_ != 0) loop_.schedule(completion_);
  }
}

Data StreamSocket::takeInput() {
  if (input_.count() > readMaximum_) {
    Data piece = input_.slice(0, readMaximum_);
    input_.removeFirst(readMaximum_);
    return piece;
  }
  Data last = std::move(input_);
  if (auto* const pipe = PipePool::holding(last)) pipe->setRestHeld(false);
  return last;
}

void StreamSocket::dropInput() noexcept {
  if (auto* const pipe = PipePool::holding(input_)) pipe->setRestHeld(false);
  input_ = {};
}

bool StreamSocket::isOutputAccepted() const noexcept {
  if (outputBytes_ <= outputBound) return true;
  // What waits in a pipe has its bound there.
  return output_.size() == 1 && PipePool::holding(output_.front()) != nullptr;
}

void StreamSocket::greet() {
  if (outputBytes_ > 0) {
    greetingPatience_ = 0;
  } else if (--greetingPatience_ > 0) {
    loop_.defer(transfer_);
  } else {
    setPromptAcknowledgement(socket_, true);  // there are none: the peer may be the one to begin
  }
}

void StreamSocket::transfer() {
  if (greetingPatience_ > 0) greet();
  if (outputBytes_ > 0 && isWritable_) flush();
  if (phase_ == Phase::finishing) {
    linger();
  } else if (isReadWanted_ && isReadable_ && input_.isEmpty() && !hasEnded_) {
    fill();
  }
}

void StreamSocket::flush() {
  std::size_t first = 0;  // the first piece that has not left whole
  while (first < output_.size()) {
    std::size_t asked = 0;
    const ssize_t sent = sendSome(first, asked);
    if (sent < 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN) {
        failWriting(errno);
        return;
      }
    }
    auto left = sent > 0 ? static_cast<std::size_t>(sent) : 0;
    addTo(bytesWritten_, left);
    outputBytes_ -= left;
    const bool isPartial = left < asked;
    while (left > 0 && left >= output_[first].count()) left -= output_[first++].count();
    if (left > 0) output_[first].removeFirst(left);
    if (isPartial) {
      isWritable_ = false;
      break;
    }
  }
  output_.erase(output_.begin(), output_.begin() + static_cast<std::ptrdiff_t>(first));
  if (output_.empty() && output_.capacity() > 4) std::vector<Data>().swap(output_);
  if (isWriteEnding_ && output_.empty() && phase_ == Phase::open)
    ::shutdown(socket_.get(), SHUT_WR);
  if (isWriteWanted_ && isOutputAccepted()) loop_.schedule(completion_);
}

ssize_t StreamSocket::sendSome(std::size_t first, std::size_t& asked) {
  if (auto* const pipe = PipePool::holding(output_[first])) {
    const ssize_t sent = pipe->drain(socket_.get(), output_[first]);
    asked = output_[first].count();
    if (sent != PipePool::Pipe::mustBeRead) return sent;
  }
  asked = 0;
  std::array<iovec, 64> pieces;
  std::size_t count = 0;
  for (; count < pieces.size() && first + count < output_.size(); ++count) {
    const Data& piece = output_[first + count];
    if (count > 0 && PipePool::holding(piece) != nullptr) break;
    const auto bytes = piece.bytes();
    // sendmsg does not write through the pointer that iovec has for both directions.
    pieces[count] = {const_cast<std::uint8_t*>(bytes.data()),
                     bytes.size()};  // NOLINT(*-const-cast)
    asked += bytes.size();
  }
  msghdr message{};
  message.msg_iov = pieces.data();
  message.msg_iovlen = count;
  const bool isLast = (isWriteEnding_ || phase_ == Phase::finishing) && asked == outputBytes_;
  return ::sendmsg(socket_.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT | (isLast ? MSG_MORE : 0));
}

void StreamSocket::fill() {
  for (;;) {
    // A pipe hands on by reference what a read would copy; for a few bytes that is no gain. It
    // cannot pass an urgent byte.
    PipePool::Pipe* const pipe = isBulk_ && !isReadUntilEmpty_ ? loop_.pipes().borrow() : nullptr;
    const ssize_t count = pipe != nullptr ? receiveIntoPipe(*pipe) : receiveIntoMemory();
    if (count > 0) {
      addTo(bytesRead_, static_cast<std::size_t>(count));
      isBulk_ = static_cast<std::size_t>(count) >= bulk;
    } else if (count == 0) {
      hasEnded_ = true;
      // The kernel tells of a reset once; when a write has heard it, a read finds an end in order.
      if (writeError_ == ECONNRESET) readError_ = ECONNRESET;
    } else if (errno == EINTR) {
      continue;
    } else if (errno == EAGAIN) {
      isReadable_ = false;
      return;
    } else {
      hasEnded_ = true;
      readError_ = errno;
    }
    break;
  }
  loop_.schedule(completion_);
}

ssize_t StreamSocket::receiveIntoMemory() {
  BufferPool::Buffer& buffer = loop_.buffers().borrow();
  const Data whole(buffer, 0, buffer.room().size());
  const ssize_t count = ::recv(socket_.get(), buffer.room().data(), whole.count(), MSG_DONTWAIT);
  if (count <= 0) return count;
  const auto received = static_cast<std::size_t>(count);
  // A short read has emptied the socket: what comes next is announced by a new edge. The end of
  // the stream may have been announced already, and a read stops short at an urgent byte.
  isReadable_ = isReadUntilEmpty_ || received == whole.count();
  input_ = whole.slice(0, received);
  return count;
}

ssize_t StreamSocket::receiveIntoPipe(PipePool::Pipe& pipe) {
  const Data owner(pipe, 0, 0);
  const ssize_t count = pipe.fill(socket_.get());
  if (count <= 0) return count;
  // How much fits depends on how the bytes lie: the socket may hold more, however few they were.
  input_ = Data(pipe, 0, static_cast<std::size_t>(count));
  pipe.setRestHeld(true);
  return count;
}

}  // namespace tandor
