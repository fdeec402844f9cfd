#include "platform/linux/SocketTCPFlow.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>
#include <utility>
#include <vector>

#include "platform/linux/SocketDiagnosis.h"

namespace tandor {
namespace {

using Bytes = std::span<const std::uint8_t>;

/// A read asks for all that is there.
constexpr std::size_t everything = std::numeric_limits<std::size_t>::max();

// The TLS record layer, as far as a first flight is concerned (RFC 8446, 5.1).
constexpr std::uint8_t handshakeRecord = 22;
constexpr std::size_t recordHeaderLength = 5;
constexpr std::size_t longestRecord = std::size_t{16} * 1024;

/// How long a first flight is: the whole first record of a TLS handshake, and for anything else
/// what is there.
std::size_t firstFlightLength(Bytes bytes) noexcept {
  if (bytes[0] != handshakeRecord) return bytes.size();
  if (bytes.size() < recordHeaderLength) return recordHeaderLength;
  const std::size_t length = std::size_t{bytes[3]} << 8 | bytes[4];
  return recordHeaderLength + std::min(length, longestRecord);
}

constexpr auto firstFlightPatience = std::chrono::milliseconds(300);

/// A reset gives up what the application has sent: only what is being read just now goes on.
constexpr auto resetPatience = std::chrono::milliseconds(100);
constexpr auto departureCheck = std::chrono::seconds(1);

/// Whether no process holds the application's socket any more. One that has only ended its sending
/// side waits for an answer.
bool isAbandoned(const FlowKey& flow) {
  auto diagnosis = SocketDiagnosis::make();
  if (!diagnosis) return false;
  const auto facts = diagnosis->find(flow, 0);
  return !facts || facts->inode == 0;
}

std::optional<NSError> systemError(int number) {
  if (number == 0) return std::nullopt;
  return NSError::posix(number);
}

}  // namespace

/// A hello longer than a segment, until its first record is whole or patience ends.
class SocketTCPFlow::FirstFlight {
 public:
  explicit FirstFlight(SocketTCPFlow& flow)
      : timer_(*flow.residence(), EpollLoop::Call::to<&SocketTCPFlow::deliverFirstFlight>(&flow)) {
    timer_.start(firstFlightPatience);
  }

  /// Adds bytes; true when the flight is whole.
  bool append(const Data& data) {
    bytes_.insert(bytes_.end(), data.bytes().begin(), data.bytes().end());
    return bytes_.size() >= firstFlightLength(bytes_);
  }
  [[nodiscard]] Bytes bytes() const { return bytes_; }

 private:
  std::vector<std::uint8_t> bytes_;
  EpollLoop::Timer timer_;
};

/// What is known of an application that has ended its side while nobody reads.
struct SocketTCPFlow::Departure {
  explicit Departure(SocketTCPFlow& flow)
      : timer(*flow.residence(), EpollLoop::Call::to<&SocketTCPFlow::checkDeparture>(&flow)),
        bytesRead(flow.stream_->bytesRead()) {
    timer.start(resetPatience);
  }

  EpollLoop::Timer timer;
  bool hasLeft = false;
  std::uint64_t bytesRead;
  EpollLoop::Clock::time_point since;  // from when on neither has changed
};

SocketTCPFlow::SocketTCPFlow(Origin origin, FlowRegistry& registry)
    : InterceptedFlow(std::move(origin), &registry) {}

SocketTCPFlow::SocketTCPFlow(EpollLoop& loop, FileDescriptor socket, NEFlowMetaData metaData,
                             const IPv4Endpoint& destination)
    : InterceptedFlow({.key = {.protocol = IPPROTO_TCP, .source = {}, .destination = destination},
                       .pid = 0,
                       .metaData = std::make_shared<const NEFlowMetaData>(std::move(metaData))},
                      nullptr),
      unopened_(std::move(socket)) {
  StreamSocket::prepare(unopened_);
  settle(loop);
  stream_.emplace(loop, static_cast<StreamSocket::Owner&>(*this));
}

SocketTCPFlow::~SocketTCPFlow() {
  if (unopened_.isOpen()) {
    refuse();
  } else if (stream_ && stream_->isOpen()) {
    stream_->reset();
  }
  delist();
}

NWFlowEndpoint SocketTCPFlow::remoteEndpoint() const {
  const IPv4Endpoint& destination = key().destination;
  return NWHostEndpoint{destination.host(), std::to_string(destination.port)};
}

void SocketTCPFlow::attach(EpollLoop& loop, FileDescriptor socket) {
  settle(loop);
  stream_.emplace(loop, static_cast<StreamSocket::Owner&>(*this));
  unopened_ = std::move(socket);
  enlist();
  if (isRefused()) {
    refuse();
  } else if (opening_ != nullptr) {
    adoptSocket();
  }
}

void SocketTCPFlow::abandon() {
  if (const auto opening = std::exchange(opening_, nullptr))
    opening->completion(NSError::posix(ECONNABORTED));
}

void SocketTCPFlow::letGo(bool isLate) {
  if (!unopened_.isOpen()) {
    stream_->letGo(isLate);
  } else if (isLate) {
    refuse();
  }
}

void SocketTCPFlow::open(const std::optional<NWHostEndpoint>& /*localEndpoint*/,
                         Completion completion) {
  if (residence() == nullptr) {
    opening_ = std::make_unique<Opening>(std::move(completion));
    return;
  }
  onLoop([this, completion = std::move(completion)]() mutable {
    opening_ = std::make_unique<Opening>(std::move(completion));
    adoptSocket();
  });
}

void SocketTCPFlow::adoptSocket() {
  opening_->error =
      systemError(unopened_.isOpen() ? stream_->adopt(std::move(unopened_)) : ECONNABORTED);
  residence()->schedule(answer_);
}

void SocketTCPFlow::refuse() {
  markClosed();
  unopened_.reset();  // the application sees its connection reset
}

void SocketTCPFlow::readData(ReadCompletion completion) {
  onLoop([this, completion = std::move(completion)]() mutable {
    readCompletion_ = std::move(completion);
    if (isReadClosed_) {
      residence()->schedule(answer_);
    } else {
      stream_->read(everything);
    }
  });
}

void SocketTCPFlow::write(Data data, Completion completion) {
  onLoop([this, data = std::move(data), completion = std::move(completion)]() mutable {
    writeCompletion_ = std::move(completion);
    if (isWriteClosed_) {
      residence()->schedule(answer_);
    } else {
      stream_->write(std::move(data));
    }
  });
}

void SocketTCPFlow::closeReadWithError(const std::optional<NSError>& error) {
  if (residence() == nullptr) {
    isReadClosed_ = true;
    return;
  }
  onLoop([this, error] { close(isReadClosed_, error); });
}

void SocketTCPFlow::closeWriteWithError(const std::optional<NSError>& error) {
  if (residence() == nullptr) {
    isWriteClosed_ = true;
    return;
  }
  onLoop([this, error] { close(isWriteClosed_, error); });
}

void SocketTCPFlow::close(bool& isDirectionClosed, const std::optional<NSError>& error) {
  if (std::exchange(isDirectionClosed, true)) return;
  residence()->schedule(answer_);
  departure_ = nullptr;
  if (!closeError_) closeError_ = error;
  if (isClosed() || closeError_) markClosed();
  if (unopened_.isOpen()) {
    refuse();
  } else if (closeError_) {
    stream_->finishWithReset(StreamSocket::Peer::local);
  } else if (isClosed()) {
    stream_->finish(StreamSocket::Peer::local);
  } else if (isWriteClosed_) {
    stream_->finishWriting();
  }
}

void SocketTCPFlow::streamDidRead(Data data) {
  if (!hasFirstFlight_) {
    if (firstFlight_ == nullptr) {
      if (data.count() < firstFlightLength(data.bytes()))
        firstFlight_ = std::make_unique<FirstFlight>(*this);
    }
    if (firstFlight_ != nullptr) {
      if (firstFlight_->append(data)) {
        deliverFirstFlight();
      } else {
        stream_->read(everything);
      }
      return;
    }
    hasFirstFlight_ = true;
    // It may have to wait for a tunnel, and would keep a read buffer from all others.
    data = residence()->flights().copy(data.bytes());
  }
  if (auto completion = std::exchange(readCompletion_, nullptr))
    completion(std::move(data), std::nullopt);
}

void SocketTCPFlow::deliverFirstFlight() {
  hasFirstFlight_ = true;
  stream_->stopReading();  // when patience ended, it still waits for more
  const auto flight = std::exchange(firstFlight_, nullptr);
  if (auto completion = std::exchange(readCompletion_, nullptr))
    completion(residence()->flights().copy(flight->bytes()), std::nullopt);
}

void SocketTCPFlow::streamDidEnd(int error) {
  if (firstFlight_ != nullptr) {
    deliverFirstFlight();  // the next read meets the same end
    return;
  }
  isGivenUp_ = isGivenUp_ || error != 0;
  if (auto completion = std::exchange(readCompletion_, nullptr))
    completion(error == 0 ? std::optional<Data>(Data()) : std::nullopt, systemError(error));
}

void SocketTCPFlow::streamDidWrite(int error) {
  if (auto completion = std::exchange(writeCompletion_, nullptr)) completion(systemError(error));
}

void SocketTCPFlow::setDepartureObserver(const std::weak_ptr<NEFlowDepartureObserver>& observer) {
  onLoop([this, observer] { departureObserver_ = observer; });
}

void SocketTCPFlow::setDeparturePatience(std::chrono::seconds patience) {
  onLoop([this, patience] { departurePatience_ = patience; });
}

void SocketTCPFlow::streamDidHangUp() {
  if (departure_ == nullptr && !departureObserver_.expired())
    departure_ = std::make_unique<Departure>(*this);
}

void SocketTCPFlow::checkDeparture() {
  const auto now = EpollLoop::Clock::now();
  const bool hasReset = stream_->wasReset();
  const bool hasLeft = hasReset || isAbandoned(key());
  const std::uint64_t bytesRead = stream_->bytesRead();
  if (hasLeft != std::exchange(departure_->hasLeft, hasLeft) ||
      bytesRead != std::exchange(departure_->bytesRead, bytesRead))
    departure_->since = now;
  const auto patience = hasReset ? EpollLoop::Clock::duration(resetPatience) : departurePatience_;
  if (!hasLeft || now - departure_->since < patience) {
    departure_->timer.start(hasReset ? resetPatience : departureCheck);
    return;
  }
  departure_ = nullptr;
  isGivenUp_ = true;
  if (const auto observer = departureObserver_.lock())
    observer->applicationDidDepart(NSError::posix(ECONNRESET));
}

void SocketTCPFlow::answer() {
  if (const auto opening = std::exchange(opening_, nullptr)) opening->completion(opening->error);
  if (isReadClosed_) {
    firstFlight_ = nullptr;
    if (auto completion = std::exchange(readCompletion_, nullptr))
      completion(std::nullopt, closeError_);
  }
  if (isWriteClosed_) {
    if (auto completion = std::exchange(writeCompletion_, nullptr))
      completion(closeError_ ? closeError_ : NSError::posix(ECANCELED));
  }
}

}  // namespace tandor
