#include <gtest/gtest.h>

#include "ipc/AppMessage.h"
#include "provider/TandorTransparentProxyProvider.h"
#include "support/ScriptedPlatform.h"

namespace tandor::test {
namespace {

using namespace std::string_literals;

std::string rendered(const std::string& enable, const std::string& logPath,
                     const std::string& isDebug, const std::string& appIds,
                     const std::string& mode) {
  return "TransparentProxyProvider.Config:\n{\n    enable:" + enable + "\n    logPath:" + logPath +
         "\n    isDebug:" + isDebug + "\n    appIds:" + appIds + "\n    mode:" + mode + "\n}";
}

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
class Provider : public testing::Test {
 protected:
  static inline const NSError broken{"Test", 7, "broken"};
  static inline const NWHostEndpoint destination{"host.example", "443"};

  /// A configuration that parses, with `more` added or put in place.
  [[nodiscard]] static AnyDictionary configuration(AnyDictionary more = {}) {
    AnyDictionary all = {{"mode", "tunnelWhiteList"},
                         {"appIds", R"(["listed"])"},
                         {"enable", "true"},
                         {"proxyHostname", "proxy.example"},
                         {"proxyPort", "3128"}};
    for (auto& [key, value] : more) all[key] = std::move(value);
    return all;
  }

  void begin(const AnyDictionary& raw) {
    provider_->attach(host_, std::make_shared<NETunnelProviderProtocol>(raw));
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

  /// Sends a message, to which it is itself the reply; what is logged last of it.
  std::string send(const std::string& message) {
    std::string replied;
    provider_->handleAppMessage(bytes(message), [&](const std::optional<Data>& reply) {
      replied = reply ? reply->characters() : "none";
    });
    EXPECT_EQ(replied, message);
    return journal_.take().back().substr(5);
  }
  /// The error that an update brings, or nothing.
  std::string update(const std::string& json) {
    const Data message = makeAppMessage("updateConfig", bytes(json));
    const std::string last = send(std::string(message.characters()));
    return last.starts_with("parse config succeed:") ? "" : last;
  }
  [[nodiscard]] std::string current() const { return provider_->config()->description(); }

  Journal journal_;
  ScriptedBackend platform_{journal_};
  ScriptedProviderHost host_{journal_};
  std::shared_ptr<TandorTransparentProxyProvider> provider_ =
      std::make_shared<TandorTransparentProxyProvider>();
};

TEST_F(Provider, TakesFlowsByModeProtocolApplicationAndDestination) {
  const auto takesTCP = [this](const std::string& app, const NWFlowEndpoint& endpoint) {
    return provider_->handleNewFlow(platform_.tcpFlow(endpoint, app));
  };
  const auto takesUDP = [this](const std::string& app, const NWFlowEndpoint& endpoint) {
    return provider_->handleNewUDPFlow(platform_.udpFlow(app), endpoint);
  };
  const struct {
    const char* mode;
    const char* app;
    bool tcp;
    bool udp;
    bool quic;
  } rules[] = {{"webProxy", "listed", true, false, true},
               {"webProxy", "other", false, false, false},
               {"directlyWhiteList", "listed", true, true, true},
               {"directlyWhiteList", "other", false, false, false},
               {"tunnelWhiteList", "listed", false, false, false},
               {"tunnelWhiteList", "other", true, true, true},
               // Identifiers are compared whole and with their case.
               {"directlyWhiteList", "Listed", false, false, false},
               {"directlyWhiteList", "listed.helper", false, false, false},
               // The product's own applications are left alone, listed or not.
               {"webProxy", "Tandor_root", false, false, false},
               {"tunnelWhiteList", "com.tandor.host.app", false, false, false}};
  for (const auto& [mode, app, tcp, udp, quic] : rules) {
    SCOPED_TRACE(std::string(mode) + " " + app);
    start(configuration({{"mode", mode}, {"appIds", R"(["listed", "Tandor_root"])"}}));
    EXPECT_EQ(takesTCP(app, NWHostEndpoint{"203.0.113.7", "80"}), tcp);
    EXPECT_EQ(takesUDP(app, NWHostEndpoint{"203.0.113.7", "80"}), udp);
    EXPECT_EQ(takesUDP(app, NWHostEndpoint{"host.example", "0443"}), quic);
    for (const char* host : {"web.10.0.0.1", "::ffff:1.2.3.4"}) {
      EXPECT_FALSE(takesTCP(app, NWHostEndpoint{host, "443"}));
      EXPECT_FALSE(takesUDP(app, NWHostEndpoint{host, "443"}));
    }
  }
  start(configuration({{"mode", "webProxy"}}));
  EXPECT_FALSE(takesTCP("listed", NWOpaqueEndpoint{"Kind"}));
  EXPECT_FALSE(takesUDP("listed", NWOpaqueEndpoint{"Kind"}));
  for (const std::string port :
       {"https", "", "65536", "-443", "+443", " 443", "443 ", "0x1bb", "18446744073709552059"}) {
    static_cast<void>(journal_.take());
    EXPECT_FALSE(takesUDP("listed", NWHostEndpoint{"host.example", port}));
    EXPECT_EQ(journal_.take(), Lines{"log: parse port: " + port + " failed"});
  }
}

TEST_F(Provider, ReadsEveryKeyAndItsDefault) {
  EXPECT_EQ(current(), rendered("false", "nil", "false", "[]", "directlyWhiteList"));
  const std::string base = R"({"mode": "directlyWhiteList", "appIds": "[]")";
  const std::string proxy = R"({"mode": "webProxy", "appIds": " [ ] ", "proxyHostname": )";
  const std::pair<std::string, std::string> cases[] = {
      {base, rendered("false", "nil", "false", "[]", "directlyWhiteList")},
      {base + R"(, "enable": "true", "debug": "true", "logPath": "/l", "unknown": "x")",
       rendered("true", "/l", "true", "[]", "directlyWhiteList")},
      {base + R"(, "Enable": "true", "enable": "TRUE", "debug": "1", "logPath": "")",
       rendered("false", "", "false", "[]", "directlyWhiteList")},
      {R"({"mode": "tunnelWhiteList", "appIds": "[\"b\", \"a\\\"\\\\\", \"b\"]")",
       rendered("false", "nil", "false", R"(["b", "a\"\\", "b"])", "tunnelWhiteList")},
      {proxy + R"("", "proxyPort": "065535")",
       rendered("false", "nil", "false", "[]", "webProxy(:65535)")}};
  // One after the other: what a dictionary leaves out goes back to its default.
  for (const auto& [members, rendering] : cases) {
    EXPECT_EQ(update(members + "}"), "");
    EXPECT_EQ(current(), rendering);
  }
  EXPECT_EQ(update(base + R"(, "socketPath": "/s", "connectReply": "status"})"), "");
  EXPECT_EQ(provider_->config()->ipcSocketPath, "/s");
  EXPECT_EQ(provider_->config()->connectReply, ConnectReply::status);
  EXPECT_EQ(update(base + R"(, "connectReply": "other"})"), "");
  EXPECT_EQ(provider_->config()->ipcSocketPath, std::nullopt);
  EXPECT_EQ(provider_->config()->connectReply, ConnectReply::phrase);
}

TEST_F(Provider, LeavesTheRestAsItWasWhenAnUpdateFails) {
  const std::string noMode = R"(parseFailed("invalid mode"))";
  const std::string noHost = R"(parseFailed("invalid proxy host name for key [proxyHostname]"))";
  const std::string noPort = R"(parseFailed("invalid proxy port for key [proxyPort]"))";
  const std::string newRecord = rendered("true", "/l", "true", R"(["new"])", "tunnelWhiteList");
  const std::string unknownMode =
      "parseFailed(" + tandor::quoted("invalid mode: " + newRecord) + ")";
  const std::string ids = R"({"appIds": "[\"new\"]")";
  const std::string proxy = ids + R"(, "mode": "webProxy")";
  const std::tuple<std::string, std::string, bool> cases[] = {
      // the update, what is said of it, whether it puts its applications in place
      {"{}", noMode, false},
      {R"({"mode": "x"})", R"(parseFailed("configuration for appIds is nil"))", false},
      {R"({"mode": "x", "appIds": "a,b"})", R"(invalidJson("a,b"))", false},
      {R"({"mode": "webProxy", "appIds": "[1,2]"})", R"(invalidJson("[1,2]"))", false},
      {R"({"mode": 1})", R"(typeMismatch("expected every value to be a string"))", false},
      {"[]", R"(typeMismatch("expected an object"))", false},
      {"{", R"(dataCorrupted("not valid JSON"))", false},
      {ids + R"(, "mode": "WebProxy", "enable": "x"})", unknownMode, true},
      {proxy + R"(, "enable": "false", "proxyPort": "x"})", noHost, true},
      {proxy + R"(, "proxyHostname": "h"})", noPort, true},
      {proxy + R"(, "proxyHostname": "h", "proxyPort": "70000"})", noPort, true},
      {proxy + R"(, "proxyHostname": "h", "proxyPort": "+80"})", noPort, true}};
  for (const auto& [json, error, replacesAppIds] : cases) {
    ASSERT_EQ(update(R"({"mode": "tunnelWhiteList", "appIds": "[\"old\"]", "enable": "true",
                         "debug": "true", "logPath": "/l"})"),
              "");
    EXPECT_EQ(update(json), error);
    const std::string appIds = replacesAppIds ? R"(["new"])" : R"(["old"])";
    EXPECT_EQ(current(), rendered("true", "/l", "true", appIds, "tunnelWhiteList")) << json;
  }
  EXPECT_EQ(send("\0\0\0\x05n"s), R"(appMessageDeserializeFailed("no name string"))");
  EXPECT_EQ(send("\0\0\0\x01n\0\0\0\x01\xFF"s), "unhandled app message: n");
  provider_->handleAppMessage(bytes("nobody waits for the reply"), nullptr);
}

TEST_F(Provider, NothingStartsThatWasNotOpenedInTime) {
  start(configuration());
  const auto take = [this] {
    std::pair flows(platform_.tcpFlow(destination), platform_.udpFlow());
    EXPECT_TRUE(provider_->handleNewFlow(flows.first));
    EXPECT_TRUE(provider_->handleNewUDPFlow(flows.second, destination));
    static_cast<void>(journal_.take());
    return flows;
  };
  const auto [failedTCP, failedUDP] = take();
  EXPECT_TRUE(failedTCP->completeOpen(broken) && failedUDP->completeOpen(broken));
  EXPECT_EQ(journal_.take(), Lines{"log: tcp flow open failed: broken"});
  // Admitted before a switch-off, even if it is over.
  const auto [tcp, udp] = take();
  provider_->sleep([] {});
  provider_->wake();
  const auto later = take();
  EXPECT_TRUE(tcp->completeOpen() && udp->completeOpen());
  EXPECT_TRUE(tcp->isClosed() && udp->isClosed());
  EXPECT_EQ(platform_.connectionCount(), 0);
  EXPECT_TRUE(provider_->proxyConnections().empty());
  later.first->completeOpen();
  EXPECT_EQ(platform_.connectionCount(), 1);
  EXPECT_FALSE(later.first->isClosed());
  static_cast<void>(journal_.take());
  provider_ = nullptr;
  later.second->completeOpen();
  EXPECT_EQ(platform_.connectionCount(), 1);
}

TEST_F(Provider, WhatClosesWhileItStartsIsNotRegistered) {
  start(configuration());
  const auto unusable = platform_.tcpFlow(NWHostEndpoint{"host.example", "no port"});
  EXPECT_TRUE(provider_->handleNewFlow(unusable));
  unusable->completeOpen();
  EXPECT_TRUE(unusable->isClosed());
  EXPECT_TRUE(provider_->proxyConnections().empty());
}

TEST_F(Provider, ClosesItsFlowsBeforeItHasStopped) {
  start(configuration());
  NENetworkRule tcp;
  tcp.protocol = NENetworkRule::Protocol::tcp;
  tcp.direction = NENetworkRule::Direction::outbound;
  NENetworkRule udp = tcp;
  udp.protocol = NENetworkRule::Protocol::udp;
  EXPECT_EQ(host_.settings(), (NETransparentProxyNetworkSettings{"127.0.0.1", {tcp, udp}}));
  const auto flow = platform_.tcpFlow(destination);
  EXPECT_TRUE(provider_->handleNewFlow(flow) && flow->completeOpen());
  const auto kept = provider_->proxyConnections();  // or its destructor would close once more
  static_cast<void>(journal_.take());
  provider_->stopProxy(NEProviderStopReason::userInitiated, completed());
  EXPECT_EQ(journal_.take(),
            (Lines{"log: stop proxy with reason:userInitiated(1)", "out1: handler cleared",
                   "out1: cancel", "flow1: closeRead nil", "flow1: closeWrite nil", "completed"}));
  EXPECT_FALSE(provider_->enable());
}

TEST_F(Provider, StartTellsThePlatformWhateverHappens) {
  const auto raw = configuration({{"socketPath", "/tandor-nobody-listens"}});
  const std::string unreachable = R"(log: ipc send status change failed: bsdError(message: )"
                                  R"("connect socket failed", errno: 2))";
  const auto startEndingWith = [&](const std::optional<NSError>& error) {
    begin(raw);
    static_cast<void>(journal_.take());
    host_.completeSettings(error);
    return journal_.take();
  };
  EXPECT_EQ(startEndingWith(broken),
            (Lines{"log: setting error while starting provider: broken", "completed broken"}));
  EXPECT_EQ(startEndingWith(std::nullopt),
            (Lines{"log: provider did start", unreachable, "completed nil"}));
  provider_->stopProxy(static_cast<NEProviderStopReason>(99), completed());
  EXPECT_EQ(journal_.take(),
            (Lines{"log: stop proxy with reason:unknown(99)", unreachable, "completed"}));
  begin(raw);
  static_cast<void>(journal_.take());
  provider_ = nullptr;
  host_.completeSettings();
  EXPECT_EQ(journal_.take(), (Lines{"log: provider did start", "completed nil"}));
}

TEST_F(Provider, InterfaceChoice) {
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
