#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "connection/ConnectExchange.h"
#include "connection/ConnectionTypes.h"
#include "connection/TandorProxyError.h"
#include "platform/dispatch/DispatchQueue.h"
#include "platform/foundation/Data.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/UUID.h"
#include "platform/network/NWConnection.h"

namespace tandor {

class TandorProxyConnection;

/// The party that is told when a proxy connection closes.
class TandorProxyConnectionDelegate {
 public:
  TandorProxyConnectionDelegate() = default;
  TandorProxyConnectionDelegate(const TandorProxyConnectionDelegate&) = delete;
  TandorProxyConnectionDelegate& operator=(const TandorProxyConnectionDelegate&) = delete;
  virtual ~TandorProxyConnectionDelegate() = default;

  /// Called at every close, possibly several times, on the thread that closes; the last call may
  /// come from the connection's destructor, so `connection` counts only as an identity, and only
  /// during the call.
  virtual void proxyConnectionDidClose(const TandorProxyConnection& connection) = 0;
};

/// The relay of one flow: opens the outbound connection, in proxy mode inspects the first bytes and
/// decides the route, moves bytes both ways, and closes the flow when either side ends or fails.
///
/// All of its state lives on its own queue, nwQueue: outbound handlers run there anyway, flow
/// completions are carried there, start() and closeAllConnWithError() enter it synchronously. The
/// provider's registry owns it until proxyConnectionDidClose; pending operations of the relay own
/// it until they have completed. Objects are equal only to themselves.
class TandorProxyConnection final : public std::enable_shared_from_this<TandorProxyConnection>,
                                    private NEFlowDepartureObserver {
  struct MakeOnly {};

 public:
  /// A connection in the state ready; nothing is opened or read yet.
  [[nodiscard]] static std::shared_ptr<TandorProxyConnection> make(ConnectionMode mode,
                                                                   ConnectionNetwork network) {
    return std::make_shared<TandorProxyConnection>(MakeOnly{}, std::move(mode), std::move(network));
  }
  TandorProxyConnection(MakeOnly, ConnectionMode mode, ConnectionNetwork network);
  TandorProxyConnection(const TandorProxyConnection&) = delete;
  TandorProxyConnection& operator=(const TandorProxyConnection&) = delete;
  /// Closes the flow, whatever happened before, and tells the delegate.
  ~TandorProxyConnection() override;

  /// Before start().
  void setIsDebug(bool isDebug) noexcept { isDebug_ = isDebug; }
  void setConnectReply(ConnectReply connectReply) noexcept { connectReply_ = connectReply; }
  void setDelegate(std::weak_ptr<TandorProxyConnectionDelegate> delegate) noexcept {
    delegate_ = std::move(delegate);
  }

  /// Begins the relay. Called once, by any thread but another connection's loop.
  void start();
  /// Ends the outbound connection and closes the flow, with the error if there is one; both have
  /// happened when it returns. Any thread but another connection's loop.
  void closeAllConnWithError(const std::optional<NSError>& error);

  // To be read on nwQueue, or while nothing runs.
  [[nodiscard]] bool isDebug() const noexcept { return isDebug_; }
  [[nodiscard]] const ConnectionNetwork& network() const noexcept { return network_; }
  [[nodiscard]] const std::shared_ptr<NWConnection>& connection() const noexcept {
    return connection_;
  }
  [[nodiscard]] ConnectionState state() const noexcept { return state_; }
  [[nodiscard]] const ConnectionMode& mode() const noexcept { return mode_; }
  [[nodiscard]] const UUID& identifier() const noexcept { return identifier_; }
  [[nodiscard]] bool flowHandled() const noexcept { return flowHandled_; }
  [[nodiscard]] DispatchQueue& nwQueue() const noexcept { return *nwQueue_; }

  /// Host names that always go direct; a name that contains one of them does, too.
  static constexpr std::array<std::string_view, 2> whiteListHostNames = {"accounts.tandor.cloud",
                                                                         "gnome.org"};

 private:
  using StartResult = std::expected<void, TandorProxyError>;

  /// How long the proxy may take to answer a CONNECT request; then it has refused it.
  static constexpr std::chrono::seconds tunnelPatience{30};
  /// How long bytes of an application that has gone wait for their way out to be open, and once it
  /// is, for somebody to take them.
  static constexpr std::chrono::seconds departedPatience{3};
  static constexpr std::chrono::seconds departedRelayPatience{60};
  /// The most that one receive brings from the outbound connection, in bytes.
  static constexpr std::size_t maximumReceiveLength = 2048;

  // Lifecycle.cpp
  void cancelNWConnection();
  void closeFlowWithError(const std::optional<NSError>& error);
  /// The cancel step, then the close of the flow: how every connection ends.
  void endWithError(const std::optional<NSError>& error);
  void observeDeparture();
  /// Nobody takes the bytes of an application that has gone. On the flow's thread.
  void applicationDidDepart(const std::optional<NSError>& error) override;
  /// Whether a completion still matters: those of a cancelled or replaced connection do nothing.
  [[nodiscard]] bool isCurrent(const NWConnection* connection) const noexcept {
    return connection_.get() == connection;
  }

  // Route.cpp
  void startHttpProxy(const NWEndpoint& endPoint);
  void handleClientHello();
  void decideRoute(NEAppProxyTCPFlow& flow, Data firstData);
  void requestTunnel(const std::string& hostname, const std::string& port, Data firstData);
  [[nodiscard]] static bool checkShouldFallbackToDirectMode(std::string_view hostname);
  void toDirectMode(std::string_view reason, std::optional<Data> firstData);
  [[nodiscard]] static std::optional<std::string> parseTlsHeader(const Data& data);

  // Direct.cpp
  [[nodiscard]] StartResult startDirectly(std::optional<NWInterface> interface,
                                          std::optional<Data> firstData);
  [[nodiscard]] static std::shared_ptr<NWConnection> newNWConnection(const NWNetwork& network);
  /// Takes the proxy's silence for a refusal when it lasts.
  void limitTunnelRequest();
  /// Told whether the proxy made the tunnel, and the bytes of the tunnel that came with the reply.
  using TunnelCompletion = std::move_only_function<void(bool isEstablished, const Data& behind)>;
  /// Receives the proxy's reply: one piece, or as many as its head has when the status counts. The
  /// completion is dropped when this connection has no interest in it any more.
  void handleConnectRequestServerResponseCompletion(TunnelCompletion completion);

  void receiveConnectReplyHead(std::unique_ptr<ConnectReplyReader> reader,
                               TunnelCompletion completion);

  // Relay.cpp
  /// Sends the first data, if any, to the outbound connection and `behind` to the flow, and starts
  /// both loops.
  void startRelay(std::optional<Data> firstData, const Data& behind = {});
  void copyFlowDataToNWConnection(std::optional<Data> firstData);
  void copyNWConnectionDataToFlow(const Data& behind = {});
  void readFlowData();
  void sendChunk(Data chunk);
  void flowReadCompleted(std::optional<Data> data, const std::optional<NSError>& error);
  void sendCompleted(const std::optional<NSError>& error);

  struct Download;
  static void receiveChunk(std::unique_ptr<Download> download);
  void receiveFailed(bool isComplete, const std::optional<NSError>& error);
  static void writeFlowData(std::unique_ptr<Download> download, Data data);
  static void flowWriteCompleted(std::unique_ptr<Download> download,
                                 const std::optional<NSError>& error);

  bool isDebug_ = false;
  bool flowHandled_ = false;
  ConnectReply connectReply_ = ConnectReply::phrase;
  ConnectionState state_ = ConnectionState::ready;
  const ConnectionNetwork network_;
  std::shared_ptr<NWConnection> connection_;
  ConnectionMode mode_;
  const UUID identifier_ = UUID::random();
  std::weak_ptr<TandorProxyConnectionDelegate> delegate_;
  const std::shared_ptr<DispatchQueue> nwQueue_;
  DispatchQueue::DelayedBlock tunnelLimit_;  // while the proxy's answer is waited for
  /// Datagrams of the last flow read that wait for their turn to be sent, last one first.
  std::vector<Data> datagramsToSend_;
};

}  // namespace tandor
