#pragma once

#include <cerrno>
#include <memory>
#include <optional>
#include <vector>

#include "platform/linux/EpollLoop.h"
#include "platform/linux/InterceptedFlow.h"
#include "platform/linux/OutboundConnections.h"
#include "platform/linux/OutboundPorts.h"
#include "platform/linux/Resolver.h"
#include "platform/network/NWConnection.h"

namespace tandor {

/// What outbound connections have in common, all of them.
struct OutboundMeans {
  Resolver& resolver;
  OutboundPorts& ports;
  OutboundConnections& connections;
};

/// What outbound connections over TCP and UDP share: the states and their handler, resolution, and
/// the turn of the addresses. Lives on the loop that its queue is pinned to, else on a given one.
class SocketConnection : public NWConnection, public EpollLoop::Resident {
 public:
  /// `defaultLoop` serves when the queue given to start() is free. It and the means outlive
  /// the connection.
  SocketConnection(NWEndpoint endpoint, NWParameters parameters, OutboundMeans means,
                   EpollLoop& defaultLoop);
  ~SocketConnection() override;
  SocketConnection(const SocketConnection&) = delete;
  SocketConnection& operator=(const SocketConnection&) = delete;

  void setStateUpdateHandler(StateUpdateHandler handler) final;
  void start(std::shared_ptr<DispatchQueue> queue) final;
  void send(Data content, ContentContext context, bool isComplete, SendCompletion completion) final;
  void receive(std::size_t minimum, std::size_t maximum, ReceiveCompletion completion) final;
  void cancel() final;

  /// Closes the socket with a reset; what is pending fails with this error number, and what comes
  /// after it. On the loop.
  void fail(int error);
  /// Of its socket; negative for none. On the loop.
  [[nodiscard]] virtual int descriptor() const noexcept = 0;

 protected:
  /// Opens the socket towards one address: streams answer later with attemptEnded, or return an
  /// error number at once; 0 means that it is under way or done.
  virtual int attempt(FileDescriptor socket, const SocketAddress& address) = 0;
  /// The connection is ready when these two are called.
  virtual void sendContent(Data content) = 0;
  virtual void receiveContent(std::size_t minimum, std::size_t maximum) = 0;
  /// Closes the socket, in order if it is connected.
  virtual void finish() = 0;
  /// Closes it so that its peer sees a failure.
  virtual void abort() = 0;

  /// The attempt succeeded (0) or failed; a failed one is followed by the next address.
  void attemptEnded(int error);
  void completeSend(int error);
  void completeReceive(std::optional<Data> data, bool isComplete, int error);

  [[nodiscard]] EpollLoop& loop() const noexcept { return *residence(); }
  /// The flow that is relayed, which lives on the same loop; null when there is none or it has
  /// ended.
  [[nodiscard]] std::shared_ptr<InterceptedFlow> flow() const;

 private:
  friend class OutboundConnections;

  void begin();
  void resolved(const Resolver::Answer& answer);
  void tryNextAddress();
  /// Begins to connect a new socket; returns an error number.
  [[nodiscard]] int connectTo(const SocketAddress& address);
  /// Lets the flow that is relayed show where to.
  void noteOutbound(const SocketAddress& address);
  void reportFailure(int error);
  void report(State::Kind kind, std::optional<NSError> error = std::nullopt);
  /// Delivers the states that came, then refuses what cannot be done any more, or not yet.
  void answer();
  void handleState(const State& state);
  /// Answers what cannot be carried out, before the connection is ready and after it was cancelled.
  void refuse();
  void scheduleRefusal();
  /// Runs `function` on the connection's queue: at once where the loop is the queue.
  void onQueue(std::invocable auto&& function);

  /// What a connection needs as long as there may be another address to try.
  struct Search {
    NWEndpoint endpoint;
    NWParameters parameters;
    OutboundMeans means;
    EpollLoop& defaultLoop;
    Resolver::Addresses addresses;
    std::size_t next = 0;  // the address that comes after the one that is tried
    int lastError = 0;
  };
  std::unique_ptr<Search> search_;
  std::shared_ptr<DispatchQueue> queue_;
  /// What pins the queue, where that is a flow.
  const InterceptedFlow::Affinity* flowAffinity_ = nullptr;

  StateUpdateHandler stateUpdateHandler_;  // touched under the queue's exclusion only
  bool wasHandlerReplaced_ = false;
  bool isReady_ = false;
  bool isCancelled_ = false;
  bool isRefusing_ = false;  // with the next answer
  int refusal_ = ENOTCONN;
  std::vector<State> statesToDeliver_;

  SendCompletion sendCompletion_;
  ReceiveCompletion receiveCompletion_;

  OutboundConnections* connections_ = nullptr;  // once it has begun; guards the links
  SocketConnection* next_ = nullptr;
  SocketConnection* previous_ = nullptr;

  EpollLoop::Task answer_{EpollLoop::Call::to<&SocketConnection::answer>(this)};
};

/// A new connection of the parameters' transport.
[[nodiscard]] std::shared_ptr<NWConnection> makeSocketConnection(const NWEndpoint& endpoint,
                                                                 const NWParameters& parameters,
                                                                 const OutboundMeans& means,
                                                                 EpollLoop& defaultLoop);

}  // namespace tandor
