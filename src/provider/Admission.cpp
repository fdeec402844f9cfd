#include <algorithm>

#include "provider/TandorTransparentProxyProvider.h"
#include "support/AddressClassification.h"
#include "support/Log.h"

namespace tandor {
namespace {

constexpr std::uint16_t quicPort = 443;

bool contains(const std::vector<std::string>& identifiers, const std::string& app) {
  return std::ranges::find(identifiers, app) != identifiers.end();
}

}  // namespace

bool TandorTransparentProxyProvider::handleNewFlow(const std::shared_ptr<NEAppProxyFlow>& flow) {
  const SwitchOffs switchOffsBefore = switchOffs_;
  const auto tcpFlow = std::dynamic_pointer_cast<NEAppProxyTCPFlow>(flow);
  if (tcpFlow == nullptr) return false;
  const NWFlowEndpoint remoteEndpoint = tcpFlow->remoteEndpoint();
  const auto* endPoint = std::get_if<NWHostEndpoint>(&remoteEndpoint);
  if (endPoint == nullptr) return false;
  if (!checkFlowShouldBeHandled(*tcpFlow, /*isUDP=*/false, *endPoint)) return false;
  if (config()->isDebug) log("handle tcp flow: " + tcpFlow->metaData().sourceAppSigningIdentifier);
  handleTCPFlow(tcpFlow, *endPoint, switchOffsBefore);
  return true;
}

bool TandorTransparentProxyProvider::handleNewUDPFlow(
    const std::shared_ptr<NEAppProxyUDPFlow>& flow, const NWFlowEndpoint& initialRemoteEndpoint) {
  const SwitchOffs switchOffsBefore = switchOffs_;
  const auto* endPoint = std::get_if<NWHostEndpoint>(&initialRemoteEndpoint);
  if (endPoint == nullptr) return false;
  if (!checkFlowShouldBeHandled(*flow, /*isUDP=*/true, *endPoint)) return false;
  handleUDPFlow(flow, *endPoint, switchOffsBefore);
  return true;
}

bool TandorTransparentProxyProvider::checkFlowShouldBeHandled(
    const NEAppProxyFlow& flow, bool isUDP, const NWHostEndpoint& endPoint) const {
  const auto config = this->config();
  const std::string& app = flow.metaData().sourceAppSigningIdentifier;
  if (!config->enable) return false;
  if (contains(config->whiteList, app)) return false;
  if (isIpv6(endPoint)) return false;
  if (isPrivateNetwork(endPoint)) return false;

  const bool isListed = contains(config->appIds, app);
  if (config->providerMode.isTunnelWhiteList()) return !isListed;
  if (!isListed) return false;
  if (config->providerMode.webProxy() == nullptr || !isUDP) return true;
  // The proxy carries no UDP. QUIC is taken only to be refused at once, so that the application
  // falls back to TCP; the rest of its UDP is none of the proxy's business.
  const auto port = NWEndpoint::Port::fromText(endPoint.port);
  if (!port) {
    log("parse port:", endPoint.port, "failed");
    return false;
  }
  return port->number() == quicPort;
}

}  // namespace tandor
