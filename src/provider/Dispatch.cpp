#include "provider/TandorTransparentProxyProvider.h"
#include "support/Log.h"

namespace tandor {

ConnectionMode TandorTransparentProxyProvider::connectionMode() const {
  const std::scoped_lock lock(guard_);
  if (const auto* proxy = config_->providerMode.webProxy())
    return ConnectionMode::httpProxy(NWEndpoint::hostPort(proxy->proxyHost, proxy->proxyPort));
  return ConnectionMode::directly(directlyInterface_);
}

void TandorTransparentProxyProvider::handleTCPFlow(
    const std::shared_ptr<NEAppProxyTCPFlow>& tcpFlow, const NWHostEndpoint& endPoint,
    SwitchOffs switchOffsBefore) {
  tcpFlow->open(std::nullopt, [weakSelf = weakSelf(), flow = tcpFlow, endPoint,
                               switchOffsBefore](const std::optional<NSError>& error) mutable {
    if (error) {
      log("tcp flow open failed:", *error);
    } else if (const auto self = weakSelf.lock()) {
      self->startTandorProxyConnectionWith(std::move(flow), endPoint, switchOffsBefore);
    }
  });
}

void TandorTransparentProxyProvider::handleUDPFlow(
    const std::shared_ptr<NEAppProxyUDPFlow>& udpFlow, const NWHostEndpoint& endPoint,
    SwitchOffs switchOffsBefore) {
  if (config()->providerMode.webProxy() != nullptr) {
    const NSError refusal = TandorProviderError::quicNotSupport().platformError();
    udpFlow->closeWriteWithError(refusal);
    udpFlow->closeReadWithError(refusal);
    return;
  }
  udpFlow->open(std::nullopt, [weakSelf = weakSelf(), flow = udpFlow, endPoint,
                               switchOffsBefore](const std::optional<NSError>& error) mutable {
    if (error) return;
    if (const auto self = weakSelf.lock())
      self->startTandorProxyConnectionWith(std::move(flow), endPoint, switchOffsBefore);
  });
}

void TandorTransparentProxyProvider::startTandorProxyConnectionWith(
    std::shared_ptr<NEAppProxyTCPFlow> flow, const NWHostEndpoint& remoteEndpoint,
    SwitchOffs switchOffsBefore) {
  startTandorProxyConnection("tcp", ConnectionNetwork::tcp(std::move(flow), remoteEndpoint),
                             remoteEndpoint, switchOffsBefore);
}

void TandorTransparentProxyProvider::startTandorProxyConnectionWith(
    std::shared_ptr<NEAppProxyUDPFlow> flow, const NWHostEndpoint& remoteEndpoint,
    SwitchOffs switchOffsBefore) {
  startTandorProxyConnection("udp", ConnectionNetwork::udp(std::move(flow), remoteEndpoint),
                             remoteEndpoint, switchOffsBefore);
}

void TandorTransparentProxyProvider::startTandorProxyConnection(
    std::string_view kind, ConnectionNetwork network, const NWHostEndpoint& remoteEndpoint,
    SwitchOffs switchOffsBefore) {
  const auto config = this->config();
  const bool isDebug = config->isDebug;
  if (isDebug) {
    log("start TandorProxyConnection: " + std::string(kind) + " flow [" +
        remoteEndpoint.description() + "] mode: " + connectionMode().description() +
        " app:" + network.sourceFlow().metaData().sourceAppSigningIdentifier);
  }
  const auto connection = TandorProxyConnection::make(connectionMode(), std::move(network));
  connection->setIsDebug(isDebug);
  connection->setConnectReply(config->connectReply);
  connection->setDelegate(weakSelf());
  // Registered before it starts, so that a close during the start finds it there.
  proxyConnections_.insert(connection);
  if (switchOffs_ != switchOffsBefore) {
    // Switched off while the flow was opening: the switch-off may have missed it in the registry.
    connection->closeAllConnWithError(std::nullopt);
    return;
  }
  connection->start();
}

void TandorTransparentProxyProvider::proxyConnectionDidClose(
    const TandorProxyConnection& connection) {
  proxyConnections_.remove(&connection);
}

}  // namespace tandor
