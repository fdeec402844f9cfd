#include "provider/Config.h"

#include <fmt/format.h>

#include "platform/foundation/Description.h"

namespace tandor {

std::string ProxyProviderMode::description() const {
  if (const WebProxy* proxy = webProxy())
    return "webProxy(" + proxy->proxyHost.description() + ":" + proxy->proxyPort.description() +
           ")";
  return isTunnelWhiteList() ? "tunnelWhiteList" : "directlyWhiteList";
}

std::string Config::description() const {
  return fmt::format(
      "TransparentProxyProvider.Config:\n"
      "{{\n"
      "    enable:{}\n"
      "    logPath:{}\n"
      "    isDebug:{}\n"
      "    appIds:{}\n"
      "    mode:{}\n"
      "}}",
      enable, tandor::description(logPath), isDebug, tandor::description(appIds),
      providerMode.description());
}

}  // namespace tandor
