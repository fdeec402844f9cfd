#include "platform/linux/SocketUDPFlow.h"

#include <cerrno>
#include <chrono>
#include <iterator>
#include <limits>
#include <utility>
#include <vector>

#include "platform/linux/UnreachableNotice.h"

namespace tandor {
namespace {

constexpr std::size_t everything = std::numeric_limits<std::size_t>::max();

/// How long a flow may be silent. A resolver's answer comes soon or never.
std::chrono::seconds patience(const NWHostEndpoint& remoteEndpoint) {
  using namespace std::chrono_literals;
  return remoteEndpoint.port == "53" ? 30s : 180s;
}

}  // namespace

SocketUDPFlow::SocketUDPFlow(Origin origin, FlowRegistry& registry)
    : InterceptedFlow(std::move(origin), &registry),
      remoteEndpoint_{key().destination.host(), std::to_string(key().destination.port)} {}

SocketUDPFlow::SocketUDPFlow(EpollLoop& loop, FileDescriptor socket, NEFlowMetaData metaData,
                             NWHostEndpoint remoteEndpoint)
    : InterceptedFlow({.key = {},
                       .pid = 0,
                       .metaData = std::make_shared<const NEFlowMetaData>(std::move(metaData))},
                      nullptr),
      remoteEndpoint_(std::move(remoteEndpoint)),
      unopened_(std::move(socket)) {
  settle(loop);
  socket_.emplace(loop, static_cast<DatagramSocket::Owner&>(*this));
}

SocketUDPFlow::~SocketUDPFlow() {
  if (socket_) socket_->finish();
  if (closeHandler_) closeHandler_();
  if (openError_) sendUnreachableNotice(key(), ECONNREFUSED);
  delist();
}

void SocketUDPFlow::attach(EpollLoop& loop) {
  settle(loop);
  socket_.emplace(loop, static_cast<DatagramSocket::Owner&>(*this));
  enlist();
  if (isRefused()) markClosed();
  silence_ = std::make_unique<EpollLoop::Timer>(
      loop, EpollLoop::Call::to<&SocketUDPFlow::checkSilence>(this));
  silence_->start(patience(remoteEndpoint_));
}

void SocketUDPFlow::useSocket(FileDescriptor socket) {
  if (isRefused()) return;
  unopened_ = std::move(socket);
  if (openCompletion_ != nullptr) adoptSocket();
}

void SocketUDPFlow::abandon() {
  if (auto completion = std::exchange(openCompletion_, nullptr))
    completion(NSError::posix(ECONNABORTED));
}

void SocketUDPFlow::inject(Data datagram) {
  socket_->inject(std::move(datagram));
}

void SocketUDPFlow::end() {
  onLoop([this] { socket_->endAfterInput(); });
}

void SocketUDPFlow::checkSilence() {
  if (socket_->datagrams() == datagramsAtLastCheck_) {
    end();
    return;
  }
  datagramsAtLastCheck_ = socket_->datagrams();
  silence_->start(patience(remoteEndpoint_));
}

void SocketUDPFlow::open(const std::optional<NWHostEndpoint>& /*localEndpoint*/,
                         Completion completion) {
  if (residence() == nullptr) {
    openCompletion_ = std::move(completion);
    return;
  }
  onLoop([this, completion = std::move(completion)]() mutable {
    openCompletion_ = std::move(completion);
    adoptSocket();
  });
}

void SocketUDPFlow::adoptSocket() {
  const int error = unopened_.isOpen() ? socket_->adopt(std::move(unopened_)) : ECONNABORTED;
  if (error != 0) openError_ = NSError::posix(error);
  residence()->schedule(answer_);
}

void SocketUDPFlow::readDatagrams(ReadDatagramsCompletion completion) {
  onLoop([this, completion = std::move(completion)]() mutable {
    readCompletion_ = std::move(completion);
    if (isReadClosed_) {
      residence()->schedule(answer_);
    } else {
      socket_->read(everything);
    }
  });
}

void SocketUDPFlow::writeDatagrams(std::span<const Data> datagrams,
                                   std::span<const NWHostEndpoint> /*sentBy*/,
                                   Completion completion) {
  // The socket is bound to the one endpoint that this flow talks to, whose address replies carry.
  if (residence()->isCurrent()) {
    writeCompletion_ = std::move(completion);
    if (isWriteClosed_) {
      residence()->schedule(answer_);
    } else {
      socket_->write(datagrams);
    }
    return;
  }
  onLoop([this, kept = std::vector<Data>(datagrams.begin(), datagrams.end()),
          completion = std::move(completion)]() mutable {
    writeDatagrams(kept, {}, std::move(completion));
  });
}

void SocketUDPFlow::closeReadWithError(const std::optional<NSError>& error) {
  if (residence() == nullptr) {
    isReadClosed_ = true;
    return;
  }
  onLoop([this, error] { close(isReadClosed_, error); });
}

void SocketUDPFlow::closeWriteWithError(const std::optional<NSError>& error) {
  if (residence() == nullptr) {
    isWriteClosed_ = true;
    return;
  }
  onLoop([this, error] { close(isWriteClosed_, error); });
}

void SocketUDPFlow::close(bool& isDirectionClosed, const std::optional<NSError>& error) {
  if (std::exchange(isDirectionClosed, true)) return;
  if (!closeError_) closeError_ = error;
  unopened_.reset();
  if (isReadClosed_ && isWriteClosed_) {
    markClosed();
    silence_.reset();
    socket_->finish();
    if (auto handler = std::exchange(closeHandler_, nullptr)) handler();
    // By now, what the application sends next begins a new flow.
    if (!isApplicationGone_ && closeError_ && closeError_->domain() == NSError::posixDomain)
      sendUnreachableNotice(key(), static_cast<int>(closeError_->code()));
  }
  residence()->schedule(answer_);
}

void SocketUDPFlow::datagramsDidArrive(std::span<Data> datagrams) {
  if (datagrams.front().isEmpty()) {
    // A reader reads on when it has sent everything: these are in their place.
    if (const auto carrier = carrier_.lock())
      for (std::size_t count = datagrams.size(); count > 0; --count) carrier->sendEmptyDatagram();
    socket_->read(everything);
    return;
  }
  std::vector<Data> batch(std::move_iterator(datagrams.begin()),
                          std::move_iterator(datagrams.end()));
  if (auto completion = std::exchange(readCompletion_, nullptr)) {
    const std::vector<NWHostEndpoint> addressedTo(batch.size(), remoteEndpoint_);
    completion(std::move(batch), addressedTo, std::nullopt);
  }
}

void SocketUDPFlow::datagramsDidFail(int error) {
  isApplicationGone_ = error != 0;
  if (auto completion = std::exchange(readCompletion_, nullptr))
    completion(std::nullopt, {}, error != 0 ? std::optional(NSError::posix(error)) : std::nullopt);
}

void SocketUDPFlow::datagramsDidLeave(int error) {
  isApplicationGone_ = isApplicationGone_ || error != 0;
  if (auto completion = std::exchange(writeCompletion_, nullptr))
    completion(error != 0 ? std::optional(NSError::posix(error)) : std::nullopt);
}

void SocketUDPFlow::answer() {
  if (auto completion = std::exchange(openCompletion_, nullptr)) completion(openError_);
  if (isReadClosed_) {
    if (auto completion = std::exchange(readCompletion_, nullptr))
      completion(std::nullopt, {}, closeError_);
  }
  if (isWriteClosed_) {
    if (auto completion = std::exchange(writeCompletion_, nullptr))
      completion(closeError_ ? closeError_ : NSError::posix(ECANCELED));
  }
}

}  // namespace tandor
