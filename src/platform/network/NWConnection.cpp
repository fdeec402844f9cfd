#include "platform/network/NWConnection.h"

#include "platform/Backend.h"
#include "platform/network/NWPathMonitor.h"

namespace tandor {

std::string NWConnection::State::description() const {
  std::string text;
  switch (kind) {
    case Kind::setup:
      text = "setup";
      break;
    case Kind::preparing:
      text = "preparing";
      break;
    case Kind::waiting:
      text = "waiting";
      break;
    case Kind::ready:
      text = "ready";
      break;
    case Kind::failed:
      text = "failed";
      break;
    case Kind::cancelled:
      text = "cancelled";
      break;
  }
  if (error) text += "(" + error->description() + ")";
  return text;
}

std::shared_ptr<NWConnection> NWConnection::make(const NWEndpoint& endpoint,
                                                 const NWParameters& parameters) {
  return PlatformBackend::installed().makeConnection(endpoint, parameters);
}

std::unique_ptr<NWPathMonitor> NWPathMonitor::make() {
  return PlatformBackend::installed().makePathMonitor();
}

}  // namespace tandor
