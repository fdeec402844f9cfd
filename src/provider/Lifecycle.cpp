#include <csignal>
#include <cstdlib>

#include "provider/TandorTransparentProxyProvider.h"
#include "support/Log.h"

namespace tandor {

std::weak_ptr<TandorTransparentProxyProvider> TandorTransparentProxyProvider::weakSelf() {
  return std::static_pointer_cast<TandorTransparentProxyProvider>(shared_from_this());
}

void TandorTransparentProxyProvider::startProxy(const AnyDictionary& /*options*/,
                                                Completion completion) {
  // A write to a socket whose peer has gone must fail, not end the process.
  std::signal(SIGPIPE, SIG_IGN);

  const auto parsed = [this]() -> ParseResult {
    const auto* configuration =
        dynamic_cast<const NETunnelProviderProtocol*>(protocolConfiguration().get());
    if (configuration == nullptr) {
      return std::unexpected(
          TandorProviderError::parseFailed("invalid protocolConfiguration type"));
    }
    if (!configuration->providerConfiguration()) {
      return std::unexpected(TandorProviderError::parseFailed("provider configuration is nil"));
    }
    return parseConfig(*configuration->providerConfiguration());
  }();
  if (!parsed) {
    completion(parsed.error().platformError());
    // A provider without a configuration has nothing to do; the platform may start a new process.
    // Other threads may still run, so static objects are left alone.
    std::quick_exit(EXIT_SUCCESS);
  }

  fetchInterface();
  applySettings([self = weakSelf(),
                 completion = std::move(completion)](std::optional<NSError> error) mutable {
    if (error) {
      log("setting error while starting provider: " + error->description());
      completion(std::move(error));
      return;
    }
    log("provider did start");
    if (const auto provider = self.lock())
      provider->ipcSendStatusChange(Status::started, std::nullopt);
    completion(std::nullopt);
  });
}

void TandorTransparentProxyProvider::applySettings(Completion completion) {
  const auto allOutbound = [](NENetworkRule::Protocol protocol) {
    return NENetworkRule{.remoteNetwork = std::nullopt,
                         .remotePrefix = 0,
                         .localNetwork = std::nullopt,
                         .localPrefix = 0,
                         .protocol = protocol,
                         .direction = NENetworkRule::Direction::outbound};
  };
  const NETransparentProxyNetworkSettings settings{
      .tunnelRemoteAddress = "127.0.0.1",
      .includedNetworkRules = {allOutbound(NENetworkRule::Protocol::tcp),
                               allOutbound(NENetworkRule::Protocol::udp)}};
  const auto config = this->config();
  if (config->logPath && !config->logPath->empty()) redirectLog(*config->logPath);
  log("parse config succeed:", *config);
  setTunnelNetworkSettings(settings, std::move(completion));
}

void TandorTransparentProxyProvider::setEnable(bool enable) {
  changeConfig([&](Config& config) { config.enable = enable; });
  if (enable) return;
  ++switchOffs_;
  // A snapshot: the closes take their connections out of the registry one by one.
  for (const auto& connection : proxyConnections_.allItems())
    connection->closeAllConnWithError(std::nullopt);
}

void TandorTransparentProxyProvider::stopProxy(NEProviderStopReason reason,
                                               std::move_only_function<void()> completion) {
  const std::string text = "stop proxy with reason:" + description(reason);
  log(text);
  setEnable(false);
  ipcSendStatusChange(Status::stopped, text);
  completion();
}

void TandorTransparentProxyProvider::sleep(std::move_only_function<void()> completion) {
  log("fall asleep");
  setEnable(false);
  completion();
}

void TandorTransparentProxyProvider::wake() {
  log("wake up");
  changeConfig([](Config& config) { config.enable = true; });
}

}  // namespace tandor
