#include <csignal>

#include "provider/ProviderFixture.h"

namespace tandor::test {
namespace {

using ProviderLifecycle = ProviderFixture;

TEST_F(ProviderLifecycle, StartAndStopInTheirOrder) {
  std::signal(SIGPIPE, SIG_DFL);
  begin(configuration());
  EXPECT_EQ(std::signal(SIGPIPE, SIG_IGN), SIG_IGN);
  EXPECT_EQ(journal_.take(),
            (Lines{R"(log: parse config raw: ["appIds": "[\"listed\"]", "enable": "true", )"
                   R"("mode": "tunnelWhiteList"])",
                   "path monitor: start",
                   "log: parse config succeed: " + provider_->config()->description(),
                   "host: settings"}));
  NENetworkRule tcp;
  tcp.protocol = NENetworkRule::Protocol::tcp;
  tcp.direction = NENetworkRule::Direction::outbound;
  NENetworkRule udp = tcp;
  udp.protocol = NENetworkRule::Protocol::udp;
  EXPECT_EQ(host_.settings(), (NETransparentProxyNetworkSettings{"127.0.0.1", {tcp, udp}}));
  host_.completeSettings();
  EXPECT_EQ(journal_.take(), (Lines{"log: provider did start", "completed nil"}));
  relayed();
  const auto kept = provider_->proxyConnections();  // or its destructor would close once more
  static_cast<void>(journal_.take());
  provider_->stopProxy(NEProviderStopReason::userInitiated, completed());
  EXPECT_EQ(journal_.take(),
            (Lines{"log: stop proxy with reason:userInitiated(1)", "out1: handler cleared",
                   "out1: cancel", "flow1: closeRead nil", "flow1: closeWrite nil", "completed"}));
  EXPECT_FALSE(provider_->enable());
}

TEST_F(ProviderLifecycle, StartTellsThePlatformWhateverHappens) {
  const auto raw = configuration({{"socketPath", "/tandor-nobody-listens"}});
  const std::string unreachable = R"(log: ipc send status change failed: bsdError(message: )"
                                  R"("connect socket failed", errno: 2))";
  begin(raw);
  static_cast<void>(journal_.take());
  host_.completeSettings(broken);
  EXPECT_EQ(journal_.take(),
            (Lines{"log: setting error while starting provider: broken", "completed broken"}));
  begin(raw);
  static_cast<void>(journal_.take());
  host_.completeSettings();
  EXPECT_EQ(journal_.take(), (Lines{"log: provider did start", unreachable, "completed nil"}));
  provider_->stopProxy(static_cast<NEProviderStopReason>(99), completed());
  EXPECT_EQ(journal_.take(),
            (Lines{"log: stop proxy with reason:unknown(99)", unreachable, "completed"}));
  begin(raw);
  static_cast<void>(journal_.take());
  provider_ = nullptr;
  host_.completeSettings();
  EXPECT_EQ(journal_.take(), (Lines{"log: provider did start", "completed nil"}));
}

TEST_F(ProviderLifecycle, InterfaceChoice) {
  using enum NWInterface::InterfaceType;
  const NWInterface wlan{"wlan0", wifi, 3};
  const NWInterface wired{"en0", wiredEthernet, 2};
  const NWInterface second{"en1", wiredEthernet, 4};
  const NWInterface mobile{"wwan0", cellular, 5};
  const NWInterface tunnel{"tun0", other, 6};
  start(configuration());
  const std::pair<std::vector<NWInterface>, std::optional<NWInterface>> cases[] = {
      {{wlan, mobile}, wlan},
      {{mobile, wlan}, wlan},
      {{mobile, wlan, second, wired}, second},
      {{{"lo", loopback, 1}, tunnel}, std::nullopt},
      {{tunnel, mobile}, mobile},
      {{}, std::nullopt}};
  for (const auto& [available, choice] : cases) {
    platform_.reportPath(available);
    EXPECT_EQ(journal_.take(), choice ? Lines{"log: selected interface:" + choice->name} : Lines());
    EXPECT_EQ(provider_->directlyInterface(), choice);
  }
  provider_ = nullptr;
  platform_.reportPath({wlan});
  EXPECT_EQ(journal_.take(), Lines{"log: selected interface:wlan0"});
}

}  // namespace
}  // namespace tandor::test
