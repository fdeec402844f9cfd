#pragma once

#include <expected>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

#include <nlohmann/json.hpp>

#include "host/ControlClient.h"
#include "host/EventLoop.h"
#include "host/Failure.h"
#include "host/Settings.h"

namespace tandor::host {

/// The folders of `tandor run` are called so, behind their process's number; see PrivateFolder.
inline constexpr std::string_view runFolderName = "tandor-run";

/// Where a provider listens that nobody told to listen elsewhere.
[[nodiscard]] std::string defaultControlPath();

/// What a provider answers to "status".
struct ProviderStatus {
  std::string state;
  pid_t pid = 0;
  std::string version;
  nlohmann::json whole;  // everything that it told

  /// Whether a start would be one too many.
  [[nodiscard]] bool isActive() const;
};

/// A provider that answers.
struct Provider {
  std::string controlPath;
  std::unique_ptr<ControlClient> client;
  ProviderStatus status;

  /// Connects to the control socket at `path` and asks for the status. Nothing there is nullopt.
  [[nodiscard]] static std::expected<std::optional<Provider>, Failure> find(
      EventLoop& loop, const std::string& path);

  /// The one on the control socket that the user named. Else the one on the default path; nobody
  /// there, the one that a `tandor run` of this user has started, if there is exactly one. Nobody
  /// at all is nullopt. `loop` outlives it.
  [[nodiscard]] static std::expected<std::optional<Provider>, Failure> choose(
      EventLoop& loop, const std::optional<std::string>& controlPath);
  /// The same; nobody at all is a failure.
  [[nodiscard]] static std::expected<Provider, Failure> connect(
      EventLoop& loop, const std::optional<std::string>& controlPath);

  /// Fails when the provider is of another version than this program.
  [[nodiscard]] std::expected<void, Failure> checkVersion() const;
  /// Fails when the provider is not idle.
  [[nodiscard]] std::expected<void, Failure> checkIdle() const;

  [[nodiscard]] std::expected<void, Failure> start(const ProviderValues& values) const;
  [[nodiscard]] std::expected<void, Failure> stop() const;
  [[nodiscard]] std::expected<void, Failure> sleep() const;
  [[nodiscard]] std::expected<void, Failure> wake() const;
  /// Hands over a whole configuration while it runs.
  [[nodiscard]] std::expected<void, Failure> update(const ProviderValues& values) const;
};

}  // namespace tandor::host
