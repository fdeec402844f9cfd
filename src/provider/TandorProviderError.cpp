#include "provider/TandorProviderError.h"

#include "platform/foundation/Text.h"

namespace tandor {

std::string TandorProviderError::description() const {
  std::string text;
  switch (case_) {
    case Case::parseFailed:
      text = "parseFailed";
      break;
    case Case::providerStopped:
      text = "providerStopped";
      break;
    case Case::appMessageDeserializeFailed:
      text = "appMessageDeserializeFailed";
      break;
    case Case::invalidJson:
      text = "invalidJson";
      break;
    case Case::quicNotSupport:
      text = "quicNotSupport";
      break;
  }
  if (const auto* payload = std::get_if<std::string>(&payload_))
    text += "(" + quoted(*payload) + ")";
  if (const auto* reason = std::get_if<NEProviderStopReason>(&payload_))
    text += "(reason: " + tandor::description(*reason) + ")";
  return text;
}

NSError TandorProviderError::platformError() const {
  return {"TandorProviderError", static_cast<std::int64_t>(case_), description()};
}

}  // namespace tandor
