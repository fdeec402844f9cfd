#include "platform/linux/SocketConnection.h"

#include <cerrno>
#include <utility>

#include "platform/linux/OutboundSocket.h"

namespace tandor {
namespace {

/// Errors of our own machine rather than of the way to the endpoint.
bool isLocalFailure(int error) noexcept {
  return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS ||
         error == ENODEV || error == ENOSPC;
}

}  // namespace

SocketConnection::SocketConnection(NWEndpoint endpoint, NWParameters parameters,
                                   OutboundMeans means, EpollLoop& defaultLoop)
    : search_(std::make_unique<Search>(std::move(endpoint), std::move(parameters), means,
                                       defaultLoop)) {}

SocketConnection::~SocketConnection() {
  if (connections_ != nullptr) connections_->remove(*this);
}

void SocketConnection::setStateUpdateHandler(StateUpdateHandler handler) {
  auto set = [&] {
    wasHandlerReplaced_ = true;
    stateUpdateHandler_ = std::move(handler);
  };
  if (queue_ == nullptr) {
    set();
  } else {
    queue_->sync(set);
  }
}

void SocketConnection::start(std::shared_ptr<DispatchQueue> queue) {
  queue_ = std::move(queue);
  const auto& affinity = queue_->affinity();
  flowAffinity_ = dynamic_cast<const InterceptedFlow::Affinity*>(affinity.get());
  // Every loop of this platform is one of these.
  settle(affinity != nullptr ? static_cast<EpollLoop&>(affinity->loop()) : search_->defaultLoop);
  onLoop([this] { begin(); });
}

void SocketConnection::begin() {
  if (isCancelled_) return;
  search_->means.connections.add(*this);
  report(State::Kind::preparing);
  const std::string& host = search_->endpoint.host().description();
  if (const auto numeric = SocketAddress::fromNumeric(host, search_->endpoint.port().number())) {
    search_->addresses = {*numeric};
    tryNextAddress();
    return;
  }
  search_->means.resolver.resolve(
      host, [weak = std::weak_ptr(self()), this](const Resolver::Answer& answer) {
        if (const auto alive = weak.lock()) onLoop([this, answer] { resolved(answer); });
      });
}

void SocketConnection::resolved(const Resolver::Answer& answer) {
  if (isCancelled_) return;
  if (!answer) {
    report(State::Kind::waiting, answer.error());
    return;
  }
  search_->addresses = *answer;
  for (SocketAddress& address : search_->addresses)
    address.setPort(search_->endpoint.port().number());
  tryNextAddress();
}

void SocketConnection::tryNextAddress() {
  while (search_->next < search_->addresses.size()) {
    const SocketAddress address = search_->addresses[search_->next++];
    noteOutbound(address);
    const int error = connectTo(address);
    if (error == 0) {
      // Many may be under way at once: they keep no more than they need.
      if (search_ != nullptr && search_->next == search_->addresses.size()) search_ = nullptr;
      return;
    }
    search_->lastError = error;
  }
  reportFailure(search_->lastError);
}

int SocketConnection::connectTo(const SocketAddress& address) {
  const NWParameters& parameters = search_->parameters;
  const bool isBoundStream =
      parameters.transport == NWParameters::Transport::tcp && parameters.requiredInterface;
  for (unsigned misses = 0;; ++misses) {
    const auto port = isBoundStream ? search_->means.ports.choose(misses) : std::nullopt;
    auto socket = makeOutboundSocket(address.family(), parameters, port);
    const int error = socket ? attempt(std::move(*socket), address) : socket.error();
    if (!port || (error != EADDRINUSE && error != EADDRNOTAVAIL)) return error;
  }
}

std::shared_ptr<InterceptedFlow> SocketConnection::flow() const {
  return flowAffinity_ != nullptr ? flowAffinity_->flow() : nullptr;
}

void SocketConnection::noteOutbound(const SocketAddress& address) {
  const auto flow = this->flow();
  if (flow == nullptr) return;
  const auto& interface = search_->parameters.requiredInterface;
  flow->setOutbound(address, interface ? interface->name : std::string());
}

void SocketConnection::attemptEnded(int error) {
  if (isCancelled_) return;
  if (error == 0) {
    search_ = nullptr;
    isReady_ = true;
    report(State::Kind::ready);
  } else if (search_ != nullptr) {
    search_->lastError = error;
    tryNextAddress();
  } else {
    reportFailure(error);
  }
}

void SocketConnection::reportFailure(int error) {
  report(isLocalFailure(error) ? State::Kind::failed : State::Kind::waiting, NSError::posix(error));
}

void SocketConnection::onQueue(std::invocable auto&& function) {
  // A pinned queue is pinned to this very loop.
  if (queue_->affinity() != nullptr) {
    function();
  } else {
    queue_->async(
        [alive = self(), run = std::forward<decltype(function)>(function)]() mutable { run(); });
  }
}

void SocketConnection::report(State::Kind kind, std::optional<NSError> error) {
  statesToDeliver_.push_back({kind, std::move(error)});
  loop().schedule(answer_);
}

void SocketConnection::answer() {
  // A connection that nobody refers to any more dies at the end of this turn: a free queue would
  // come too late.
  if (self() != nullptr) {
    for (State& state : std::exchange(statesToDeliver_, {}))
      onQueue([this, state = std::move(state)] { handleState(state); });
  }
  if (std::exchange(isRefusing_, false)) refuse();
}

void SocketConnection::handleState(const State& state) {
  if (stateUpdateHandler_ == nullptr) return;
  // The handler may replace or clear itself while it runs.
  auto handler = std::exchange(stateUpdateHandler_, nullptr);
  wasHandlerReplaced_ = false;
  handler(state);
  if (!wasHandlerReplaced_) stateUpdateHandler_ = std::move(handler);
}

void SocketConnection::send(Data content, ContentContext /*context*/, bool /*isComplete*/,
                            SendCompletion completion) {
  onLoop([this, content = std::move(content), completion = std::move(completion)]() mutable {
    sendCompletion_ = std::move(completion);
    if (isReady_ && !isCancelled_) {
      sendContent(std::move(content));
    } else {
      scheduleRefusal();
    }
  });
}

void SocketConnection::receive(std::size_t minimum, std::size_t maximum,
                               ReceiveCompletion completion) {
  onLoop([this, minimum, maximum, completion = std::move(completion)]() mutable {
    receiveCompletion_ = std::move(completion);
    if (isReady_ && !isCancelled_) {
      receiveContent(minimum, maximum);
    } else {
      scheduleRefusal();
    }
  });
}

void SocketConnection::completeSend(int error) {
  auto completion = std::exchange(sendCompletion_, nullptr);
  if (completion == nullptr) return;
  onQueue([completion = std::move(completion), error]() mutable {
    completion(error != 0 ? std::optional(NSError::posix(error)) : std::nullopt);
  });
}

void SocketConnection::completeReceive(std::optional<Data> data, bool isComplete, int error) {
  auto completion = std::exchange(receiveCompletion_, nullptr);
  if (completion == nullptr) return;
  onQueue(
      [completion = std::move(completion), data = std::move(data), isComplete, error]() mutable {
        completion(std::move(data), ContentContext::defaultMessage, isComplete,
                   error != 0 ? std::optional(NSError::posix(error)) : std::nullopt);
      });
}

void SocketConnection::cancel() {
  if (queue_ == nullptr) {
    isCancelled_ = true;
    return;
  }
  onLoop([this] {
    if (std::exchange(isCancelled_, true)) return;
    const auto flow = this->flow();
    flow != nullptr && flow->isGivenUp() ? abort() : finish();
    report(State::Kind::cancelled);
    scheduleRefusal();
  });
}

void SocketConnection::fail(int error) {
  if (isCancelled_) return;
  abort();
  if (std::exchange(isReady_, false)) {
    refusal_ = error;
    scheduleRefusal();
  } else {
    attemptEnded(error);
  }
}

void SocketConnection::scheduleRefusal() {
  isRefusing_ = true;
  loop().schedule(answer_);
}

void SocketConnection::refuse() {
  const int error = isCancelled_ ? ECANCELED : refusal_;
  completeSend(error);
  completeReceive(std::nullopt, false, error);
}

}  // namespace tandor
