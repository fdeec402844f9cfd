#include "platform/foundation/JSON.h"
#include "provider/TandorTransparentProxyProvider.h"
#include "support/Log.h"

namespace tandor {
namespace {

/// The text for `key`; null when it is missing or of another type.
const std::string* text(const AnyDictionary& raw, std::string_view key) {
  const auto entry = raw.find(key);
  return entry == raw.end() ? nullptr : entry->second.text();
}

std::optional<std::string> optionalText(const AnyDictionary& raw, std::string_view key) {
  const std::string* value = text(raw, key);
  return value == nullptr ? std::nullopt : std::optional(*value);
}

bool isTrue(const AnyDictionary& raw, std::string_view key) {
  const std::string* value = text(raw, key);
  return value != nullptr && *value == "true";
}

/// The mode that the dictionary asks for; `config` is what an unknown mode's error shows.
std::expected<ProxyProviderMode, TandorProviderError> parseMode(const AnyDictionary& raw,
                                                                std::string_view mode,
                                                                const Config& config) {
  if (mode == "directlyWhiteList") return ProxyProviderMode::directlyWhiteList();
  if (mode == "tunnelWhiteList") return ProxyProviderMode::tunnelWhiteList();
  if (mode != "webProxy") {
    return std::unexpected(
        TandorProviderError::parseFailed("invalid mode: " + config.description()));
  }
  const std::string* host = text(raw, "proxyHostname");
  if (host == nullptr) {
    return std::unexpected(
        TandorProviderError::parseFailed("invalid proxy host name for key [proxyHostname]"));
  }
  const std::string* portText = text(raw, "proxyPort");
  const auto port = portText == nullptr ? std::nullopt : NWEndpoint::Port::fromText(*portText);
  if (!port) {
    return std::unexpected(
        TandorProviderError::parseFailed("invalid proxy port for key [proxyPort]"));
  }
  return ProxyProviderMode::webProxy(NWEndpoint::Host::name(*host), *port);
}

}  // namespace

std::shared_ptr<const Config> TandorTransparentProxyProvider::config() const {
  const std::scoped_lock lock(guard_);
  return config_;
}

TandorTransparentProxyProvider::ParseResult TandorTransparentProxyProvider::parseConfig(
    const AnyDictionary& raw) {
  log("parse config raw:", raw);
  const std::string* mode = text(raw, "mode");
  if (mode == nullptr) return std::unexpected(TandorProviderError::parseFailed("invalid mode"));
  const std::string* appIdsText = text(raw, "appIds");
  if (appIdsText == nullptr) {
    return std::unexpected(TandorProviderError::parseFailed("configuration for appIds is nil"));
  }
  auto appIds = decodeJSONStringList(*appIdsText);
  if (!appIds) return std::unexpected(TandorProviderError::invalidJson(*appIdsText));

  ParseResult result;
  changeConfig([&](Config& config) {
    // From here on a failure leaves the new list in place.
    config.appIds = std::move(*appIds);
    auto providerMode = parseMode(raw, *mode, config);
    if (!providerMode) {
      result = std::unexpected(providerMode.error());
      return;
    }
    config.providerMode = std::move(*providerMode);
    config.enable = isTrue(raw, "enable");
    config.isDebug = isTrue(raw, "debug");
    config.logPath = optionalText(raw, "logPath");
    config.ipcSocketPath = optionalText(raw, "socketPath");
    const std::string* connectReply = text(raw, "connectReply");
    config.connectReply = connectReply != nullptr && *connectReply == "status"
                              ? ConnectReply::status
                              : ConnectReply::phrase;
  });
  return result;
}

}  // namespace tandor
