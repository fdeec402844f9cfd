#pragma once

#include <atomic>
#include <concepts>
#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "connection/TandorProxyConnection.h"
#include "ipc/AppMessage.h"
#include "ipc/StatusMessage.h"
#include "platform/network/NWPathMonitor.h"
#include "platform/networkextension/NETransparentProxyProvider.h"
#include "provider/Config.h"
#include "provider/TandorProviderError.h"
#include "support/SafeSet.h"

namespace tandor {

/// The provider: keeps the configuration, chooses the interface for direct connections, decides on
/// every new flow, and keeps the registry of the connections that relay the taken ones.
///
/// The platform calls it on threads of its own; flows come several at a time. The configuration and
/// the direct interface are whole values behind one guard: a reader takes a snapshot.
class TandorTransparentProxyProvider final : public NETransparentProxyProvider,
                                             public TandorProxyConnectionDelegate {
 public:
  using Status = ProxyProviderStatus;

  TandorTransparentProxyProvider() = default;

  // The platform's operations.
  void startProxy(const AnyDictionary& options, Completion completion) override;
  void stopProxy(NEProviderStopReason reason, std::move_only_function<void()> completion) override;
  void sleep(std::move_only_function<void()> completion) override;
  void wake() override;
  bool handleNewFlow(const std::shared_ptr<NEAppProxyFlow>& flow) override;
  bool handleNewUDPFlow(const std::shared_ptr<NEAppProxyUDPFlow>& flow,
                        const NWFlowEndpoint& initialRemoteEndpoint) override;
  void handleAppMessage(const Data& message, MessageCompletion completion) override;

  void proxyConnectionDidClose(const TandorProxyConnection& connection) override;

  /// The configuration as it is now.
  [[nodiscard]] std::shared_ptr<const Config> config() const;
  [[nodiscard]] std::optional<NWInterface> directlyInterface() const override;
  /// The route that a connection made now would take.
  [[nodiscard]] ConnectionMode connectionMode() const;
  /// The live connections at this moment.
  [[nodiscard]] std::vector<std::shared_ptr<TandorProxyConnection>> proxyConnections() const {
    return proxyConnections_.allItems();
  }

  /// The master switch. Turning it off closes every live connection before it returns.
  void setEnable(bool enable);
  [[nodiscard]] bool enable() const { return config()->enable; }

  /// Points standard output and standard error at the file, appending. A failure is logged and
  /// leaves them as they are.
  static void redirectLog(const std::string& path);

 private:
  using ParseResult = std::expected<void, TandorProviderError>;
  /// How often the switch was turned off. A flow that was admitted before the latest time must not
  /// start any more.
  using SwitchOffs = std::uint64_t;

  /// Connections by identity, found by their address alone: a connection that is being destroyed
  /// can still be looked up.
  struct ByIdentity {
    using is_transparent = void;
    static const TandorProxyConnection* address(const TandorProxyConnection* connection) {
      return connection;
    }
    static const TandorProxyConnection* address(
        const std::shared_ptr<TandorProxyConnection>& connection) {
      return connection.get();
    }
    std::size_t operator()(const auto& connection) const {
      return std::hash<const TandorProxyConnection*>()(address(connection));
    }
    bool operator()(const auto& left, const auto& right) const {
      return address(left) == address(right);
    }
  };

  [[nodiscard]] std::weak_ptr<TandorTransparentProxyProvider> weakSelf();

  // Configuration.cpp
  [[nodiscard]] ParseResult parseConfig(const AnyDictionary& raw);
  /// Replaces the configuration by a changed copy of itself.
  void changeConfig(std::invocable<Config&> auto&& change) {
    const std::scoped_lock lock(guard_);
    auto changed = std::make_shared<Config>(*config_);
    change(*changed);
    config_ = std::move(changed);
  }

  // Lifecycle.cpp
  void applySettings(Completion completion);

  // StatusNotification.cpp
  void ipcSendStatusChange(Status status, std::optional<std::string_view> content);

  // InterfaceSelection.cpp
  void fetchInterface();

  // Admission.cpp
  [[nodiscard]] bool checkFlowShouldBeHandled(const NEAppProxyFlow& flow, bool isUDP,
                                              const NWHostEndpoint& endPoint) const;

  // Dispatch.cpp
  void handleTCPFlow(const std::shared_ptr<NEAppProxyTCPFlow>& tcpFlow,
                     const NWHostEndpoint& endPoint, SwitchOffs switchOffsBefore);
  void handleUDPFlow(const std::shared_ptr<NEAppProxyUDPFlow>& udpFlow,
                     const NWHostEndpoint& endPoint, SwitchOffs switchOffsBefore);
  void startTandorProxyConnectionWith(std::shared_ptr<NEAppProxyTCPFlow> flow,
                                      const NWHostEndpoint& remoteEndpoint,
                                      SwitchOffs switchOffsBefore);
  void startTandorProxyConnectionWith(std::shared_ptr<NEAppProxyUDPFlow> flow,
                                      const NWHostEndpoint& remoteEndpoint,
                                      SwitchOffs switchOffsBefore);
  void startTandorProxyConnection(std::string_view kind, ConnectionNetwork network,
                                  const NWHostEndpoint& remoteEndpoint,
                                  SwitchOffs switchOffsBefore);

  // HostMessages.cpp
  [[nodiscard]] static std::expected<AppMessage, TandorProviderError> deserialize(const Data& data);
  /// Fails with the printed form of the error.
  [[nodiscard]] std::expected<void, std::string> handleAppMessage(const std::string& name,
                                                                  const Data& content);

  mutable std::mutex guard_;
  std::shared_ptr<const Config> config_ = std::make_shared<const Config>();  // guarded by guard_
  std::optional<NWInterface> directlyInterface_;                             // guarded by guard_
  std::atomic<SwitchOffs> switchOffs_{0};
  SafeSet<std::shared_ptr<TandorProxyConnection>, ByIdentity, ByIdentity> proxyConnections_;
  const std::unique_ptr<NWPathMonitor> interfaceMonitor_ = NWPathMonitor::make();
};

}  // namespace tandor
