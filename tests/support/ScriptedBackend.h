#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/Backend.h"
#include "support/Journal.h"
#include "support/ScriptedConnection.h"
#include "support/ScriptedFlow.h"

namespace tandor::test {

/// Text as data.
[[nodiscard]] inline Data bytes(std::string_view text) {
  return Data::copying(text);
}

/// The platform, scripted: in force for as long as it lives. It hands out scripted connections,
/// which it names out1, out2, ..., and makes scripted flows, which it names flow1, flow2, ...; it
/// keeps them all, and when it goes it forgets what is still under way, which lets the last owners
/// go. Any thread.
class ScriptedBackend final : public PlatformBackend {
 public:
  explicit ScriptedBackend(Journal& journal) : journal_(journal), earlier_(install(this)) {}
  ScriptedBackend(const ScriptedBackend&) = delete;
  ScriptedBackend& operator=(const ScriptedBackend&) = delete;
  ~ScriptedBackend() override {
    for (const auto& connection : connections_) connection->abandon();
    for (const auto& flow : tcpFlows_) flow->abandon();
    for (const auto& flow : udpFlows_) flow->abandon();
    install(earlier_);
  }

  /// The connection made as the `number`-th, counted from 1.
  [[nodiscard]] ScriptedConnection& out(std::size_t number) {
    const std::scoped_lock lock(mutex_);
    return *connections_.at(number - 1);
  }
  /// The number of the last connection.
  [[nodiscard]] std::size_t connectionCount() {
    const std::scoped_lock lock(mutex_);
    return connections_.size();
  }

  [[nodiscard]] std::shared_ptr<ScriptedTCPFlow> tcpFlow(NWFlowEndpoint endpoint,
                                                         std::string app = "app") {
    const std::scoped_lock lock(mutex_);
    return tcpFlows_.emplace_back(std::make_shared<ScriptedTCPFlow>(
        journal_, nextFlowName(), std::move(app), std::move(endpoint)));
  }
  [[nodiscard]] std::shared_ptr<ScriptedUDPFlow> udpFlow(std::string app = "app") {
    const std::scoped_lock lock(mutex_);
    return udpFlows_.emplace_back(
        std::make_shared<ScriptedUDPFlow>(journal_, nextFlowName(), std::move(app)));
  }

  /// Reports a path to whoever watched last, even when that one is gone. One call at a time.
  void reportPath(std::vector<NWInterface> interfaces) {
    (*pathHandler_)(NWPath{std::move(interfaces)});
  }

  [[nodiscard]] std::shared_ptr<NWConnection> makeConnection(
      const NWEndpoint& endpoint, const NWParameters& parameters) override {
    const std::scoped_lock lock(mutex_);
    const std::string name = "out" + std::to_string(connections_.size() + 1);
    const bool isUDP = parameters.transport == NWParameters::Transport::udp;
    const auto& interface = parameters.requiredInterface;
    journal_.note(name + ": " + (isUDP ? "udp " : "tcp ") + endpoint.description() +
                  (interface ? " via " + interface->name : ""));
    return connections_.emplace_back(std::make_shared<ScriptedConnection>(journal_, name));
  }
  [[nodiscard]] std::unique_ptr<NWPathMonitor> makePathMonitor() override {
    return std::make_unique<PathMonitor>(*this);
  }

 private:
  class PathMonitor final : public NWPathMonitor {
   public:
    explicit PathMonitor(ScriptedBackend& backend) : backend_(backend) {}
    void start(GlobalQueue& /*queue*/) override {
      backend_.journal_.note("path monitor: start");
      backend_.pathHandler_ = pathUpdateHandler_;
    }

   private:
    ScriptedBackend& backend_;
  };

  std::string nextFlowName() {
    return "flow" + std::to_string(tcpFlows_.size() + udpFlows_.size() + 1);
  }

  Journal& journal_;
  PlatformBackend* const earlier_;
  std::shared_ptr<NWPathMonitor::PathUpdateHandler> pathHandler_;
  std::mutex mutex_;
  std::vector<std::shared_ptr<ScriptedConnection>> connections_;  // guarded by mutex_
  std::vector<std::shared_ptr<ScriptedTCPFlow>> tcpFlows_;        // guarded by mutex_
  std::vector<std::shared_ptr<ScriptedUDPFlow>> udpFlows_;        // guarded by mutex_
};

}  // namespace tandor::test
