// How a stream ends: in order, after its last bytes, or by a reset.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <utility>

#include "platform/linux/StreamSocket.h"

namespace tandor {
namespace {

using namespace std::chrono_literals;

/// While a finished stream still has bytes to send: how often to look, and how long it may stand
/// still before its peer counts as gone.
constexpr auto lingerCheck = 1000ms;
/// A reset that follows the last bytes waits for their acknowledgement, which comes soon or when
/// the peer reads.
constexpr auto firstResetCheck = 5ms;
constexpr int stalledChecksAllowed = 30;
/// How long a peer that has received everything may take to end its own side.
constexpr int silentChecksAllowed = 5;
/// What such a peer may go on sending until it is told that nobody listens.
constexpr std::size_t mostDiscarded = std::size_t{256} * 1024;
/// How long a write that has failed waits for a reader who takes nothing.
constexpr auto heldFailurePatience = 2s;

}  // namespace

/// What only a socket needs whose write has failed while there may be an answer to read.
struct StreamSocket::HeldFailure {
  explicit HeldFailure(StreamSocket& socket)
      : timer(socket.loop_, EpollLoop::Call::to<&StreamSocket::checkHeldFailure>(&socket)),
        bytesRead(socket.bytesRead()) {
    timer.start(heldFailurePatience);
  }

  EpollLoop::Timer timer;
  std::uint64_t bytesRead;  // at the last check
  bool isOverdue = false;
};

/// What only a finishing socket needs.
struct StreamSocket::Linger {
  Linger(StreamSocket& socket, std::shared_ptr<void> owner, Peer peer, Ending howToEnd)
      : isPeerLocal(peer == Peer::local),
        ending(howToEnd),
        reference(std::move(owner)),
        timer(socket.loop_, EpollLoop::Call::to<&StreamSocket::lingerTimeout>(&socket)) {}

  const bool isPeerLocal;
  const Ending ending;
  std::chrono::milliseconds resetCheck = firstResetCheck;
  std::shared_ptr<void> reference;
  EpollLoop::Timer timer;
  bool isShutDown = false;
  std::size_t discarded = 0;  // since the shutdown
  std::size_t unsentAtLastCheck = 0;
  int checksWithoutProgress = 0;
};

StreamSocket::StreamSocket(EpollLoop& loop, Owner& owner) noexcept : loop_(loop), owner_(owner) {}

StreamSocket::~StreamSocket() {
  close();
}

void StreamSocket::finishWriting() {
  if (phase_ != Phase::open || std::exchange(isWriteEnding_, true)) return;
  if (outputBytes_ == 0) ::shutdown(socket_.get(), SHUT_WR);
}

void StreamSocket::failWriting(int error) {
  writeError_ = error;
  outputBytes_ = 0;
  output_.clear();
  isReadable_ = isReadUntilEmpty_ = true;  // what the peer had sent before still is there
  loop_.defer(transfer_);
  if (isWriteWanted_) loop_.schedule(completion_);
}

bool StreamSocket::isFailureDue() {
  const bool mayHaveAnswered =
      (writeError_ == ECONNRESET || writeError_ == EPIPE) && wasRead_ && phase_ == Phase::open;
  const bool isAnswerRead = hasEnded_ && input_.isEmpty() && !isReadWanted_;
  if (!mayHaveAnswered || isAnswerRead || (heldFailure_ != nullptr && heldFailure_->isOverdue)) {
    heldFailure_ = nullptr;
    return true;
  }
  if (heldFailure_ == nullptr) heldFailure_ = std::make_unique<HeldFailure>(*this);
  return false;
}

void StreamSocket::checkHeldFailure() {
  heldFailure_->isOverdue = bytesRead() == std::exchange(heldFailure_->bytesRead, bytesRead());
  if (heldFailure_->isOverdue) {
    loop_.schedule(completion_);
  } else {
    heldFailure_->timer.start(heldFailurePatience);
  }
}

void StreamSocket::finish(Peer peer, Ending ending) {
  if (phase_ == Phase::finishing) return;
  if (phase_ != Phase::open) {
    close();
    return;
  }
  if (ending == Ending::reset && (writeError_ != 0 || readError_ != 0 || undelivered() == 0)) {
    reset();
    return;
  }
  phase_ = Phase::finishing;
  isReadWanted_ = isWriteWanted_ = false;
  completion_.unlink();
  dropInput();
  heldFailure_ = nullptr;
  linger_ = std::make_unique<Linger>(*this, owner_.streamReference(), peer, ending);
  // Where both sides have ended there is nothing to wait for. But what the end is about, bytes to
  // another socket, goes first.
  if (!hasEnded_ || outputBytes_ > 0) linger_->timer.start(lingerCheck);
  loop_.defer(transfer_);
}

void StreamSocket::linger() {
  if (writeError_ != 0 || readError_ != 0) {
    close();
    return;
  }
  if (outputBytes_ > 0) {
    // What comes in meanwhile must not fill the window, or a peer that waits to be read never
    // reads.
    if (isReadable_) discardInput();
    return;
  }
  if (linger_->ending == Ending::reset) {
    awaitReset();
    return;
  }
  if (!linger_->isShutDown) {
    linger_->isShutDown = true;
    // The kernel has every byte: from here on it can do the rest alone.
    setResetOnClose(socket_, false);
    if (!hasEnded_) ::shutdown(socket_.get(), SHUT_WR);
  }
  if (!hasEnded_ && isReadable_) discardInput();
  if (hasEnded_) close();
}

bool StreamSocket::wasReset() const noexcept {
  tcp_info info{};
  socklen_t length = sizeof info;
  return ::getsockopt(socket_.get(), IPPROTO_TCP, TCP_INFO, &info, &length) == 0 &&
         info.tcpi_state == TCP_CLOSE;
}

void StreamSocket::awaitReset() {
  // What the peer has not acknowledged before its own reset, it never will.
  if (undelivered() == 0 || wasReset()) {
    reset();
    return;
  }
  linger_->timer.start(linger_->resetCheck);
  linger_->resetCheck = std::min(2 * linger_->resetCheck, lingerCheck);
  if (isReadable_) discardInput();
}

void StreamSocket::discardInput() {
  // A stream socket drops the bytes of a read that asks for their count only.
  for (int rounds = 0; rounds < 16; ++rounds) {
    const ssize_t count =
        ::recv(socket_.get(), nullptr, std::size_t{1} << 20, MSG_DONTWAIT | MSG_TRUNC);
    if (count > 0) {
      if (!linger_->isShutDown) continue;
      linger_->discarded += static_cast<std::size_t>(count);
      if (linger_->discarded <= mostDiscarded || undelivered() > 0) continue;
      reset();
      return;
    }
    if (count == 0 || errno != EAGAIN) hasEnded_ = true;
    if (count < 0 && errno != EAGAIN) readError_ = errno;
    isReadable_ = false;
    return;
  }
  loop_.defer(transfer_);  // a flood: others have their turn first
}

void StreamSocket::lingerTimeout() {
  if (linger_->ending == Ending::reset && outputBytes_ == 0) {
    awaitReset();
    return;
  }
  const std::size_t unsent = undelivered();
  const bool hasProgress = unsent != linger_->unsentAtLastCheck;
  linger_->unsentAtLastCheck = unsent;
  linger_->checksWithoutProgress = hasProgress ? 0 : linger_->checksWithoutProgress + 1;
  const bool isPatient = unsent > 0 && linger_->isPeerLocal;
  const int allowed = unsent > 0 ? stalledChecksAllowed : silentChecksAllowed;
  if (isPatient || linger_->checksWithoutProgress < allowed) {
    linger_->timer.start(lingerCheck);
  } else if (unsent > 0) {
    reset();  // an end in order would say that this was everything
  } else {
    close();
  }
}

std::size_t StreamSocket::undelivered() const noexcept {
  int unacknowledged = 0;
  ::ioctl(socket_.get(), SIOCOUTQ, &unacknowledged);
  return outputBytes_ + static_cast<std::size_t>(std::max(unacknowledged, 0));
}

void StreamSocket::letGo(bool isLate) {
  if (!isOpen()) return;
  if (linger_ != nullptr && linger_->isShutDown && undelivered() == 0) {
    close();
  } else if (isLate) {
    reset();
  }
}

void StreamSocket::abort() {
  if (phase_ == Phase::open && isWritable_ && outputBytes_ > 0) flush();
  reset();
}

void StreamSocket::reset() {
  if (isOpen()) setResetOnClose(socket_, true);
  close();
}

void StreamSocket::close() noexcept {
  phase_ = Phase::closed;
  isReadWanted_ = isWriteWanted_ = false;
  completion_.unlink();
  transfer_.unlink();
  heldFailure_ = nullptr;
  dropInput();
  output_.clear();
  outputBytes_ = 0;
  if (socket_.isOpen()) {
    loop_.remove(socket_.get(), *this);
    socket_.reset();
  }
  // Goes last: it may hold the only reference to the owner, which then dies at the end of the turn.
  const auto last = std::move(linger_);
}

}  // namespace tandor
