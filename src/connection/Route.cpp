#include <algorithm>

#include "connection/ConnectExchange.h"
#include "connection/TandorProxyConnection.h"
#include "support/Log.h"
#include "tls/ClientHello.h"

namespace tandor {

void TandorProxyConnection::start() {
  nwQueue_->sync([this] {
    cancelNWConnection();
    state_ = ConnectionState::start;
    observeDeparture();
    if (const auto* proxy = mode_.httpProxy()) {
      startHttpProxy(proxy->endPoint);
    } else if (auto started = startDirectly(mode_.directly()->interface, std::nullopt); !started) {
      endWithError(started.error().platformError());
    }
  });
}

void TandorProxyConnection::startHttpProxy(const NWEndpoint& endPoint) {
  connection_ = newNWConnection({NWNetwork::Transport::tcp, endPoint, std::nullopt});
  connection_->setStateUpdateHandler(
      [weakSelf = weak_from_this()](const NWConnection::State& state) {
        switch (state.kind) {
          case NWConnection::State::Kind::waiting:
          case NWConnection::State::Kind::failed:
            log("proxy failed:", state.error, "; state:", state);
            if (const auto self = weakSelf.lock()) self->endWithError(state.error);
            break;
          case NWConnection::State::Kind::ready:
            log("proxy ready");
            if (const auto self = weakSelf.lock()) self->handleClientHello();
            break;
          default:
            log("unhandled:", state);
            break;
        }
      });
  connection_->start(nwQueue_);
}

void TandorProxyConnection::handleClientHello() {
  if (flowHandled_) return;
  const auto* tcp = network_.tcp();
  if (tcp == nullptr) {
    toDirectMode("udp flow not support for http proxy", std::nullopt);
    return;
  }
  flowHandled_ = true;
  tcp->sourceFlow->readData([weakSelf = weak_from_this(), flow = tcp->sourceFlow](
                                std::optional<Data> data, std::optional<NSError> error) mutable {
    const auto self = weakSelf.lock();
    if (self == nullptr) return;
    self->nwQueue_->carry(
        [self, flow = std::move(flow), data = std::move(data), error = std::move(error)]() mutable {
          // A flow that was closed meanwhile must not set out again in direct mode.
          if (self->connection_ == nullptr) return;
          if (error || !data || data->isEmpty()) {
            if (self->isDebug_) {
              log("read flow for client hello packet failed with err:",
                  error ? error->description() : "null");
            }
            self->endWithError(error);
            return;
          }
          self->decideRoute(*flow, std::move(*data));
        });
  });
}

void TandorProxyConnection::decideRoute(NEAppProxyTCPFlow& flow, Data firstData) {
  const auto hostname = parseTlsHeader(firstData);
  if (!hostname || !isHostName(*hostname)) {
    if (isUTF8(firstData.bytes()) && firstData.characters().contains("HTTP/1.1")) {
      startRelay(std::move(firstData));
    } else {
      toDirectMode("parse sni info failed, request neither https nor http", std::move(firstData));
    }
    return;
  }
  const NWFlowEndpoint remoteEndpoint = flow.remoteEndpoint();
  const auto* endpoint = std::get_if<NWHostEndpoint>(&remoteEndpoint);
  if (endpoint == nullptr) {
    toDirectMode("flow.remoteEndpoint not NWHostEndpoint type", std::move(firstData));
    return;
  }
  if (checkShouldFallbackToDirectMode(*hostname)) {
    toDirectMode("white list host name:" + *hostname, std::move(firstData));
    return;
  }
  requestTunnel(*hostname, endpoint->port, std::move(firstData));
}

void TandorProxyConnection::requestTunnel(const std::string& hostname, const std::string& port,
                                          Data firstData) {
  Data request = makeConnectRequest(hostname, port);
  if (isDebug_) {
    const auto text = decodeUTF8(request.bytes());
    log("=============>" + text.value_or("null"));
  }
  if (connection_ == nullptr) return;
  limitTunnelRequest();
  connection_->send(
      std::move(request), NWConnection::ContentContext::defaultMessage, /*isComplete=*/true,
      [self = shared_from_this(), connection = connection_.get(),
       firstData = std::move(firstData)](std::optional<NSError> error) mutable {
        if (!self->isCurrent(connection)) return;
        if (error) {
          self->toDirectMode("nw connect request send failed:" + error->description(),
                             std::move(firstData));
          return;
        }
        // The completion runs only while this connection lives, so it need not keep it alive.
        self->handleConnectRequestServerResponseCompletion(
            [&proxied = *self, firstData = std::move(firstData)](bool isEstablished,
                                                                 const Data& behind) mutable {
              proxied.tunnelLimit_ = nullptr;
              if (isEstablished) {
                proxied.startRelay(std::move(firstData), behind);
              } else {
                proxied.toDirectMode("nw connect request establish failed", std::move(firstData));
              }
            });
      });
}

void TandorProxyConnection::limitTunnelRequest() {
  tunnelLimit_ = nwQueue_->after(tunnelPatience, [weakSelf = weak_from_this()] {
    const auto self = weakSelf.lock();
    if (self == nullptr || self->connection_ == nullptr) return;
    // What waits for the reply hears that there is none.
    self->connection_->setStateUpdateHandler(nullptr);
    self->connection_->cancel();
  });
}

bool TandorProxyConnection::checkShouldFallbackToDirectMode(std::string_view hostname) {
  return std::ranges::any_of(whiteListHostNames,
                             [&](std::string_view entry) { return hostname.contains(entry); });
}

void TandorProxyConnection::toDirectMode(std::string_view reason, std::optional<Data> firstData) {
  cancelNWConnection();
  log("change connection to direct mode, reason: " + std::string(reason));
  if (auto started = startDirectly(std::nullopt, std::move(firstData)); !started)
    endWithError(started.error().platformError());
}

std::optional<std::string> TandorProxyConnection::parseTlsHeader(const Data& data) {
  return serverName(data);
}

}  // namespace tandor
