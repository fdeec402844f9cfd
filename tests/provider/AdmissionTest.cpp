#include "provider/ProviderFixture.h"

namespace tandor::test {
namespace {

class Admission : public ProviderFixture {
 protected:
  bool takesTCP(const std::string& app, const NWFlowEndpoint& endpoint) {
    return provider_->handleNewFlow(platform_.tcpFlow(endpoint, app));
  }
  bool takesUDP(const std::string& app, const NWFlowEndpoint& endpoint) {
    return provider_->handleNewUDPFlow(platform_.udpFlow(app), endpoint);
  }
};

TEST_F(Admission, ModeProtocolApplicationAndDestination) {
  enum class Taken : std::uint8_t { never, always, onlyQUIC };
  using enum Taken;
  const std::tuple<const char*, const char*, Taken, Taken> rules[] = {
      // mode, application, TCP, UDP
      {"webProxy", "listed", always, onlyQUIC},
      {"webProxy", "other", never, never},
      {"directlyWhiteList", "listed", always, always},
      {"directlyWhiteList", "other", never, never},
      {"tunnelWhiteList", "listed", never, never},
      {"tunnelWhiteList", "other", always, always},
      // Identifiers are compared whole and with their case.
      {"directlyWhiteList", "Listed", never, never},
      {"directlyWhiteList", "listed.helper", never, never},
      // The product's own applications are left alone, listed or not.
      {"webProxy", "Tandor_root", never, never},
      {"tunnelWhiteList", "com.tandor.host.app", never, never}};
  const std::pair<NWHostEndpoint, bool> destinations[] = {{{"host.example", "0443"}, true},
                                                          {{"203.0.113.7", "80"}, true},
                                                          {{"web.10.0.0.1", "443"}, false},
                                                          {{"::ffff:1.2.3.4", "443"}, false}};
  for (const bool isEnabled : {true, false}) {
    for (const auto& [mode, app, tcp, udp] : rules) {
      start(webProxy({{"mode", mode},
                      {"appIds", R"(["listed", "Tandor_root"])"},
                      {"enable", isEnabled ? "true" : "false"}}));
      for (const auto& [endpoint, isTakable] : destinations) {
        SCOPED_TRACE(std::string(mode) + " " + app + " " + endpoint.description());
        const bool mayTake = isEnabled && isTakable;
        const bool isQUIC = endpoint.port.ends_with("443");
        EXPECT_EQ(takesTCP(app, endpoint), mayTake && tcp == always);
        EXPECT_EQ(takesUDP(app, endpoint),
                  mayTake && (udp == always || (udp == onlyQUIC && isQUIC)));
      }
    }
  }
}

TEST_F(Admission, WhatHasNoPortIsLeftAlone) {
  start(webProxy());
  EXPECT_FALSE(takesTCP("listed", NWOpaqueEndpoint{"Kind"}));
  EXPECT_FALSE(takesUDP("listed", NWOpaqueEndpoint{"Kind"}));
  for (const std::string port : {"https", "", "70000", "-443", "+443", " 443", "443 "}) {
    static_cast<void>(journal_.take());
    EXPECT_FALSE(takesUDP("listed", NWHostEndpoint{"host.example", port}));
    EXPECT_EQ(journal_.take(), Lines{"log: parse port: " + port + " failed"});
  }
}

}  // namespace
}  // namespace tandor::test
