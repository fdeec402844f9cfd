#include "platform/linux/SocketUDPFlow.h"

#include <cerrno>
#include <limits>
#include <utility>
#include <vector>

namespace tandor {
namespace {

constexpr std::size_t everything = std::numeric_limits<std::size_t>::max();

}  // namespace

SocketUDPFlow::SocketUDPFlow(EpollLoop& loop, FileDescriptor socket, NEFlowMetaData metaData,
                             NWHostEndpoint remoteEndpoint)
    : loop_(loop),
      metaData_(std::move(metaData)),
      remoteEndpoint_(std::move(remoteEndpoint)),
      unopened_(std::move(socket)),
      socket_(loop, *this) {
  settle(loop);
}

void SocketUDPFlow::open(const std::optional<NWHostEndpoint>& /*localEndpoint*/,
                         Completion completion) {
  onLoop([this, completion = std::move(completion)]() mutable {
    openCompletion_ = std::move(completion);
    const int error = unopened_.isOpen() ? socket_.adopt(std::move(unopened_)) : ECONNABORTED;
    if (error != 0) openError_ = NSError::posix(error);
    loop_.schedule(answer_);
  });
}

void SocketUDPFlow::readDatagrams(ReadDatagramsCompletion completion) {
  onLoop([this, completion = std::move(completion)]() mutable {
    readCompletion_ = std::move(completion);
    if (isReadClosed_) {
      loop_.schedule(answer_);
    } else {
      socket_.read(everything);
    }
  });
}

void SocketUDPFlow::writeDatagrams(std::span<const Data> datagrams,
                                   std::span<const NWHostEndpoint> /*sentBy*/,
                                   Completion completion) {
  // The socket is bound to the one endpoint that this flow talks to, whose address replies carry.
  if (loop_.isCurrent()) {
    writeCompletion_ = std::move(completion);
    if (isWriteClosed_) {
      loop_.schedule(answer_);
    } else {
      socket_.write(datagrams);
    }
    return;
  }
  onLoop([this, kept = std::vector<Data>(datagrams.begin(), datagrams.end()),
          completion = std::move(completion)]() mutable {
    writeDatagrams(kept, {}, std::move(completion));
  });
}

void SocketUDPFlow::closeReadWithError(const std::optional<NSError>& error) {
  onLoop([this, error] { close(isReadClosed_, error); });
}

void SocketUDPFlow::closeWriteWithError(const std::optional<NSError>& error) {
  onLoop([this, error] { close(isWriteClosed_, error); });
}

void SocketUDPFlow::close(bool& isDirectionClosed, const std::optional<NSError>& error) {
  if (std::exchange(isDirectionClosed, true)) return;
  if (!closeError_) closeError_ = error;
  unopened_.reset();
  if (isReadClosed_ && isWriteClosed_) socket_.finish();
  loop_.schedule(answer_);
}

void SocketUDPFlow::datagramsDidArrive(std::span<Data> datagrams) {
  std::vector<Data> batch;
  batch.reserve(datagrams.size());
  for (Data& datagram : datagrams)
    if (!datagram.isEmpty()) batch.push_back(std::move(datagram));
  if (batch.empty()) {
    socket_.read(everything);
    return;
  }
  if (auto completion = std::exchange(readCompletion_, nullptr)) {
    const std::vector<NWHostEndpoint> addressedTo(batch.size(), remoteEndpoint_);
    completion(std::move(batch), addressedTo, std::nullopt);
  }
}

void SocketUDPFlow::datagramsDidFail(int error) {
  if (auto completion = std::exchange(readCompletion_, nullptr))
    completion(std::nullopt, {}, NSError::posix(error));
}

void SocketUDPFlow::datagramsDidLeave(int error) {
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
