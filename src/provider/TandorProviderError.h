#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

#include "platform/foundation/NSError.h"
#include "platform/networkextension/NEProviderStopReason.h"

namespace tandor {

/// What can go wrong with the provider.
class TandorProviderError {
 public:
  /// In the order of their codes.
  enum class Case : std::uint8_t {
    parseFailed,
    providerStopped,
    appMessageDeserializeFailed,
    invalidJson,
    quicNotSupport,
  };

  [[nodiscard]] static TandorProviderError parseFailed(std::string_view text) {
    return {Case::parseFailed, std::string(text)};
  }
  [[nodiscard]] static TandorProviderError providerStopped(NEProviderStopReason reason) {
    return {Case::providerStopped, reason};
  }
  [[nodiscard]] static TandorProviderError appMessageDeserializeFailed(std::string_view text) {
    return {Case::appMessageDeserializeFailed, std::string(text)};
  }
  [[nodiscard]] static TandorProviderError invalidJson(std::string_view text) {
    return {Case::invalidJson, std::string(text)};
  }
  [[nodiscard]] static TandorProviderError quicNotSupport() {
    return {Case::quicNotSupport, std::monostate{}};
  }

  /// The case's name, with its payload in parentheses where it has one.
  [[nodiscard]] std::string description() const;
  /// The platform's error object for it.
  [[nodiscard]] NSError platformError() const;

  friend bool operator==(const TandorProviderError&, const TandorProviderError&) = default;

 private:
  using Payload = std::variant<std::monostate, std::string, NEProviderStopReason>;
  TandorProviderError(Case errorCase, Payload payload)
      : case_(errorCase), payload_(std::move(payload)) {}
  Case case_;
  Payload payload_;
};

}  // namespace tandor
