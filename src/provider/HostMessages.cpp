#include "platform/foundation/JSON.h"
#include "provider/TandorTransparentProxyProvider.h"
#include "support/Log.h"

namespace tandor {

void TandorTransparentProxyProvider::handleAppMessage(const Data& message,
                                                      MessageCompletion completion) {
  log("handle app message:", decodeUTF8(message.bytes()).value_or(""));
  const auto handled = [&]() -> std::expected<void, std::string> {
    const auto appMessage = deserialize(message);
    if (!appMessage) return std::unexpected(appMessage.error().description());
    return handleAppMessage(appMessage->name, appMessage->content);
  }();
  if (!handled) log(handled.error());
  // The sender gets its own bytes back, whatever became of them.
  if (completion) completion(message);
}

std::expected<void, std::string> TandorTransparentProxyProvider::handleAppMessage(
    const std::string& name, const Data& content) {
  log("receive app message:", name, "[" + std::to_string(content.count()) + "] bytes");
  if (name != "updateConfig") {
    log("unhandled app message: " + name);
    return {};
  }
  auto texts = decodeJSONStringDictionary(content.characters());
  if (!texts) return std::unexpected(texts.error().description());
  AnyDictionary raw;
  for (auto& [key, value] : *texts) raw.emplace(key, std::move(value));
  if (auto parsed = parseConfig(raw); !parsed) return std::unexpected(parsed.error().description());
  log("parse config succeed:", *config());
  return {};
}

std::expected<AppMessage, TandorProviderError> TandorTransparentProxyProvider::deserialize(
    const Data& data) {
  auto message = readAppMessage(data);
  if (!message)
    return std::unexpected(TandorProviderError::appMessageDeserializeFailed(message.error()));
  return std::move(*message);
}

}  // namespace tandor
