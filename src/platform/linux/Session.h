#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <asio/signal_set.hpp>

#include "platform/dispatch/DispatchQueue.h"
#include "platform/linux/ControlServer.h"
#include "platform/linux/ControlSocket.h"
#include "platform/linux/FlowRegistry.h"
#include "platform/linux/FlowWatch.h"
#include "platform/linux/Interception.h"
#include "platform/linux/LinuxBackend.h"
#include "platform/networkextension/NETransparentProxyProvider.h"

namespace tandor {

/// The platform's session: makes the provider when the control socket says so, calls it as an
/// operating system would, and hands over every answer. Provider operations run one at a time on
/// the session's own queue; the control socket stays responsive meanwhile.
class Session final : private NEProviderHost, private RuleGuard::Owner {
 public:
  /// `backend` outlives the session.
  Session(LinuxBackend& backend, ControlSocket socket, NETransparentProxyProvider::Factory factory);

 private:
  enum class State : std::uint8_t { idle, starting, running, failed, asleep, stopped };

  void setTunnelNetworkSettings(const NETransparentProxyNetworkSettings& settings,
                                Completion completion) override;

  // Foreign changes of the rules, on a thread of the guard's.
  void rulesRestored() override { rulesRestored_.fetch_add(1, std::memory_order_relaxed); }
  void rulesLost() override;

  // Requests, on the service thread.
  void handle(const std::string& call, const nlohmann::json& request,
              const ControlServer::Reply& reply);
  void replyStatus(const ControlServer::Reply& reply) const;
  void replyFlows(const ControlServer::Reply& reply);

  // Provider operations, on queue_.
  void start(std::shared_ptr<const NEVPNProtocol> configuration, const ControlServer::Reply& reply);
  /// Stops the provider and takes its interception away; false when there is neither.
  [[nodiscard]] bool stop(NEProviderStopReason reason, State then);
  /// Runs `operation` on queue_ with the provider, or fails the reply when none runs.
  void withProvider(const ControlServer::Reply& reply,
                    std::move_only_function<void(NETransparentProxyProvider&)> operation);

  void awaitSignal();
  /// Stops the provider and ends the process with status 0.
  void terminate(NEProviderStopReason reason);

  void enter(State state);
  [[nodiscard]] State state() const;
  [[nodiscard]] std::shared_ptr<NETransparentProxyProvider> provider() const;

  LinuxBackend& backend_;
  const NETransparentProxyProvider::Factory factory_;
  const std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::serial("tandor_session_queue");

  mutable std::mutex mutex_;
  std::condition_variable stopProgress_;         // of what a stop waits for
  bool isHurried_ = false;                       // guarded by mutex_: the end was asked for twice
  State state_ = State::idle;                    // guarded by mutex_
  std::chrono::system_clock::time_point since_;  // guarded by mutex_
  std::shared_ptr<NETransparentProxyProvider> provider_;  // guarded by mutex_
  bool isTerminating_ = false;                            // service thread
  std::atomic<std::uint64_t> rulesRestored_{0};
  FlowRegistry registry_;
  FlowWatch watch_;
  std::unique_ptr<Interception> interception_;  // on queue_
  asio::signal_set signals_;
  ControlServer server_;
};

}  // namespace tandor
