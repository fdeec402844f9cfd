#pragma once

#include <optional>
#include <string>
#include <utility>

#include "platform/foundation/AnyValue.h"

namespace tandor {

/// The configuration that the platform keeps for a provider, of some protocol type.
class NEVPNProtocol {
 public:
  NEVPNProtocol() = default;
  NEVPNProtocol(const NEVPNProtocol&) = delete;
  NEVPNProtocol& operator=(const NEVPNProtocol&) = delete;
  virtual ~NEVPNProtocol() = default;
};

/// The type that a transparent proxy is configured with.
class NETunnelProviderProtocol final : public NEVPNProtocol {
 public:
  explicit NETunnelProviderProtocol(std::optional<AnyDictionary> providerConfiguration)
      : providerConfiguration_(std::move(providerConfiguration)) {}

  /// What the host application gave for the provider itself; may be absent.
  [[nodiscard]] const std::optional<AnyDictionary>& providerConfiguration() const noexcept {
    return providerConfiguration_;
  }

 private:
  std::optional<AnyDictionary> providerConfiguration_;
};

}  // namespace tandor
