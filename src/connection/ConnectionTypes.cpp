#include "connection/ConnectionTypes.h"

namespace tandor {

std::string ConnectionMode::description() const {
  if (const HttpProxy* proxy = httpProxy())
    return "httpProxy(endPoint:" + proxy->endPoint.description() + ")";
  const auto& interface = directly()->interface;
  return "directly(interface:" + (interface ? interface->name : "nil") + ")";
}

NEAppProxyFlow& ConnectionNetwork::sourceFlow() const noexcept {
  if (const Tcp* network = tcp()) return *network->sourceFlow;
  return *udp()->sourceFlow;
}

const NWFlowEndpoint& ConnectionNetwork::remoteEndpoint() const noexcept {
  if (const Tcp* network = tcp()) return network->remoteEndpoint;
  return udp()->remoteEndpoint;
}

}  // namespace tandor
