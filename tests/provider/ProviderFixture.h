#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "provider/TandorTransparentProxyProvider.h"
#include "support/Journal.h"
#include "support/ScriptedPlatform.h"

namespace tandor::test {

/// The platform's side of a provider: notes the settings that it is given, which the test then puts
/// in force.
class ScriptedProviderHost final : public NEProviderHost {
 public:
  explicit ScriptedProviderHost(Journal& journal) : journal_(journal) {}

  bool completeSettings(const std::optional<NSError>& error = std::nullopt) {
    return applying_.complete(error);
  }

  [[nodiscard]] const NETransparentProxyNetworkSettings& settings() const { return settings_; }

  void setTunnelNetworkSettings(const NETransparentProxyNetworkSettings& settings,
                                Completion completion) override {
    journal_.note("host: settings");
    settings_ = settings;
    applying_.put(std::move(completion));
  }

 private:
  Journal& journal_;
  NETransparentProxyNetworkSettings settings_;
  Pending<Completion> applying_;
};

/// A provider on a scripted platform. Its completions note "completed" with their error.
class ProviderFixture : public testing::Test {
 protected:
  static inline const NSError broken{"Test", 7, "broken"};
  static inline const NWHostEndpoint destination{"host.example", "443"};

  /// A configuration that parses, with `more` added or put in place.
  [[nodiscard]] static AnyDictionary configuration(AnyDictionary more = {}) {
    AnyDictionary all = {
        {"mode", "tunnelWhiteList"}, {"appIds", R"(["listed"])"}, {"enable", "true"}};
    for (auto& [key, value] : more) all[key] = std::move(value);
    return all;
  }
  [[nodiscard]] static AnyDictionary webProxy(AnyDictionary more = {}) {
    more.emplace("mode", "webProxy");
    more.emplace("proxyHostname", "proxy.example");
    more.emplace("proxyPort", "3128");
    return configuration(std::move(more));
  }

  void begin(std::optional<AnyDictionary> raw) {
    provider_->attach(host_, std::make_shared<NETunnelProviderProtocol>(std::move(raw)));
    provider_->startProxy({}, [this](const std::optional<NSError>& error) {
      journal_.note("completed " + description(error));
    });
  }
  /// Starts the provider and forgets what happened.
  void start(const AnyDictionary& raw) {
    begin(raw);
    EXPECT_TRUE(host_.completeSettings());
    static_cast<void>(journal_.take());
  }
  [[nodiscard]] std::function<void()> completed() {
    return [this] { journal_.note("completed"); };
  }

  /// Offers a TCP flow of `app` and opens it; the flow's connection has started.
  std::shared_ptr<ScriptedTCPFlow> relayed(const std::string& app = "app") {
    auto flow = platform_.tcpFlow(destination, app);
    EXPECT_TRUE(provider_->handleNewFlow(flow));
    EXPECT_TRUE(flow->completeOpen());
    return flow;
  }

  Journal journal_;
  ScriptedBackend platform_{journal_};
  ScriptedProviderHost host_{journal_};
  std::shared_ptr<TandorTransparentProxyProvider> provider_ =
      std::make_shared<TandorTransparentProxyProvider>();
};

}  // namespace tandor::test
