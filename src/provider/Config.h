#pragma once

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "connection/ConnectExchange.h"
#include "platform/network/NWEndpoint.h"

namespace tandor {

/// How taken flows travel, and which applications' flows are taken.
class ProxyProviderMode {
 public:
  struct WebProxy {
    NWEndpoint::Host proxyHost;
    NWEndpoint::Port proxyPort;
    friend bool operator==(const WebProxy&, const WebProxy&) = default;
  };

  /// TCP of the listed applications goes through the HTTP proxy.
  [[nodiscard]] static ProxyProviderMode webProxy(NWEndpoint::Host proxyHost,
                                                  NWEndpoint::Port proxyPort) {
    return ProxyProviderMode(WebProxy{std::move(proxyHost), proxyPort});
  }
  /// The listed applications go directly over the preferred interface.
  [[nodiscard]] static ProxyProviderMode directlyWhiteList() {
    return ProxyProviderMode(Plain::directlyWhiteList);
  }
  /// All applications but the listed ones go directly over the preferred interface.
  [[nodiscard]] static ProxyProviderMode tunnelWhiteList() {
    return ProxyProviderMode(Plain::tunnelWhiteList);
  }

  [[nodiscard]] const WebProxy* webProxy() const noexcept { return std::get_if<WebProxy>(&mode_); }
  [[nodiscard]] bool isTunnelWhiteList() const noexcept {
    const auto* plain = std::get_if<Plain>(&mode_);
    return plain != nullptr && *plain == Plain::tunnelWhiteList;
  }

  /// webProxy(HOST:PORT), directlyWhiteList or tunnelWhiteList.
  [[nodiscard]] std::string description() const;

  friend bool operator==(const ProxyProviderMode&, const ProxyProviderMode&) = default;

 private:
  enum class Plain : std::uint8_t { directlyWhiteList, tunnelWhiteList };
  using Mode = std::variant<WebProxy, Plain>;
  explicit ProxyProviderMode(Mode mode) : mode_(std::move(mode)) {}
  Mode mode_;
};

/// The provider's whole configuration, a value.
struct Config {
  bool enable = false;
  std::optional<std::string> logPath;
  std::optional<std::string> ipcSocketPath;
  bool isDebug = false;
  std::vector<std::string> appIds;
  ProxyProviderMode providerMode = ProxyProviderMode::directlyWhiteList();
  /// Applications whose flows are never taken: the product's own.
  std::vector<std::string> whiteList = {"Tandor_root", "com.tandor.host.app",
                                        "com.tandor.host.tool"};
  /// How a proxy's reply to CONNECT is judged.
  ConnectReply connectReply = ConnectReply::phrase;

  /// Several lines, as the log shows them: all down to the mode, but for the socket path.
  [[nodiscard]] std::string description() const;
};

}  // namespace tandor
