#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/foundation/NSError.h"

namespace tandor {

/// Why a proxy connection cannot start.
class TandorProxyError {
 public:
  /// In the order of their codes.
  enum class Case : std::uint8_t { invalidEndpointType, invalidEndpointPort, objectIsReleased };

  /// The flow's remote endpoint is no host endpoint; `raw` is its class name.
  [[nodiscard]] static TandorProxyError invalidEndpointType(std::string_view raw) {
    return {Case::invalidEndpointType, raw};
  }
  /// The flow's remote endpoint has a port that is none; `raw` is its text.
  [[nodiscard]] static TandorProxyError invalidEndpointPort(std::string_view raw) {
    return {Case::invalidEndpointPort, raw};
  }
  [[nodiscard]] static TandorProxyError objectIsReleased() { return {Case::objectIsReleased, {}}; }

  /// The case's name, with its payload in parentheses where it has one.
  [[nodiscard]] std::string description() const;
  /// The platform's error object for it.
  [[nodiscard]] NSError platformError() const;

  friend bool operator==(const TandorProxyError&, const TandorProxyError&) = default;

 private:
  TandorProxyError(Case errorCase, std::string_view raw) : case_(errorCase), raw_(raw) {}
  Case case_;
  std::string raw_;
};

}  // namespace tandor
