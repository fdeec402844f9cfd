#pragma once

#include <chrono>
#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "host/EventLoop.h"
#include "host/Failure.h"
#include "platform/linux/FileDescriptor.h"

namespace tandor::host {

/// A client of the provider's control socket: one JSON object a line, both ways. Works inside its
/// loop, which outlives it.
class ControlClient {
 public:
  using EventHandler = std::function<void(const nlohmann::json&)>;
  static constexpr std::chrono::seconds callLimit{10};

  /// Fails with the error number of the system.
  [[nodiscard]] static std::expected<std::unique_ptr<ControlClient>, int> connect(
      EventLoop& loop, const std::string& path);

  ControlClient(const ControlClient&) = delete;
  ControlClient& operator=(const ControlClient&) = delete;
  ~ControlClient() = default;

  /// Calls the provider and serves the loop until the reply is there, which it returns whole. Not
  /// from inside a handler of the loop.
  [[nodiscard]] std::expected<nlohmann::json, Failure> call(
      std::string_view name, nlohmann::json members = nlohmann::json::object(),
      std::chrono::milliseconds limit = callLimit);

  /// Receives what the provider sends unasked, once it was told to: inside the loop.
  void setEventHandler(EventHandler handler) { eventHandler_ = std::move(handler); }

  /// False from the moment on when the provider has hung up.
  [[nodiscard]] bool isConnected() const noexcept { return isConnected_; }

 private:
  ControlClient(EventLoop& loop, FileDescriptor socket);
  [[nodiscard]] bool send(std::string_view line);
  void receive();
  void handleLine(std::string_view line);

  EventLoop& loop_;
  FileDescriptor socket_;
  std::string unread_;
  std::uint64_t lastId_ = 0;
  std::optional<nlohmann::json> reply_;
  EventHandler eventHandler_;
  bool isConnected_ = true;
  EventLoop::Watch watch_;
};

/// Why nobody answers at `path`, for the user.
[[nodiscard]] Failure connectFailure(const std::string& path, int error);

}  // namespace tandor::host
