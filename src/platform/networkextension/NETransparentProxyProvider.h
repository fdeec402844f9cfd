#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <utility>

#include "platform/foundation/AnyValue.h"
#include "platform/foundation/Data.h"
#include "platform/foundation/NSError.h"
#include "platform/network/NWInterface.h"
#include "platform/networkextension/NEAppProxyFlow.h"
#include "platform/networkextension/NEProviderStopReason.h"
#include "platform/networkextension/NESettings.h"
#include "platform/networkextension/NEVPNProtocol.h"

namespace tandor {

/// The platform's side of a running provider: carries out what the provider asks of it.
class NEProviderHost {
 public:
  using Completion = std::move_only_function<void(std::optional<NSError>)>;

  NEProviderHost() = default;
  NEProviderHost(const NEProviderHost&) = delete;
  NEProviderHost& operator=(const NEProviderHost&) = delete;
  virtual ~NEProviderHost() = default;

  /// Puts the settings in force. Completes once, on a thread of the platform, possibly before
  /// returning.
  virtual void setTunnelNetworkSettings(const NETransparentProxyNetworkSettings& settings,
                                        Completion completion) = 0;
};

/// What every provider has, and the way into the platform's session.
class NEProvider {
 public:
  using Completion = NEProviderHost::Completion;

  NEProvider() = default;
  NEProvider(const NEProvider&) = delete;
  NEProvider& operator=(const NEProvider&) = delete;
  virtual ~NEProvider() = default;
};

/// A provider of transparent proxying. The platform makes one instance a start, and calls its
/// operations on threads of its own; start, stop, sleep, wake and messages come one at a time.
class NETransparentProxyProvider : public NEProvider,
                                   public std::enable_shared_from_this<NETransparentProxyProvider> {
 public:
  using Factory = std::shared_ptr<NETransparentProxyProvider> (*)();
  using MessageCompletion = std::move_only_function<void(std::optional<Data>)>;

  /// Hands the process to the platform's session, which makes providers with `factory` when it is
  /// told to start, and returns at once. Ends the process itself when `arguments` (those of main)
  /// ask for something else or are wrong. Called once, by the main thread.
  static void startSystemExtensionMode(std::span<char*> arguments, Factory factory);

  virtual void startProxy(const AnyDictionary& options, Completion completion) = 0;
  virtual void stopProxy(NEProviderStopReason reason,
                         std::move_only_function<void()> completion) = 0;
  virtual void sleep(std::move_only_function<void()> completion) = 0;
  virtual void wake() = 0;
  /// Whether the provider takes the flow over. Answers at once; any thread, several at a time.
  virtual bool handleNewFlow(const std::shared_ptr<NEAppProxyFlow>& flow) = 0;
  virtual bool handleNewUDPFlow(const std::shared_ptr<NEAppProxyUDPFlow>& flow,
                                const NWFlowEndpoint& initialRemoteEndpoint) = 0;
  /// `completion` may be null: the sender wants no reply.
  virtual void handleAppMessage(const Data& message, MessageCompletion completion) = 0;

  /// The interface that the provider binds direct connections to, for whoever asks for its status.
  [[nodiscard]] virtual std::optional<NWInterface> directlyInterface() const = 0;

  /// Set by the platform before the start; the host outlives the provider.
  void attach(NEProviderHost& host, std::shared_ptr<const NEVPNProtocol> configuration) {
    host_ = &host;
    protocolConfiguration_ = std::move(configuration);
  }

 protected:
  /// The configuration that the platform keeps for this provider; may be null.
  [[nodiscard]] const std::shared_ptr<const NEVPNProtocol>& protocolConfiguration() const noexcept {
    return protocolConfiguration_;
  }
  void setTunnelNetworkSettings(const NETransparentProxyNetworkSettings& settings,
                                Completion completion) {
    host_->setTunnelNetworkSettings(settings, std::move(completion));
  }

 private:
  NEProviderHost* host_ = nullptr;
  std::shared_ptr<const NEVPNProtocol> protocolConfiguration_;
};

}  // namespace tandor
