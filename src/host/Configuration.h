#pragma once

#include <expected>
#include <string>
#include <vector>

#include "host/ApplicationResolver.h"
#include "host/Failure.h"
#include "host/Settings.h"

namespace tandor::host {

/// A whole configuration that makes sense, ready to be sent.
struct Configuration {
  Mode mode;
  std::vector<ResolvedApplication> apps;
  std::optional<Proxy> proxy;
  std::string log;
  bool debug;
  bool enable;
  ConnectReply connectReply;

  /// In the provider's own form; `socketPath` is where it tells its status, empty for nowhere.
  [[nodiscard]] ProviderValues values(const std::string& socketPath) const;
  /// One line for people.
  [[nodiscard]] std::string description() const;
};

/// Resolves the applications and fills in the defaults. Fails when something is missing.
[[nodiscard]] std::expected<Configuration, Failure> makeConfiguration(
    const Settings& settings, const ApplicationResolver& resolver);

}  // namespace tandor::host
