#include "provider/ProviderFixture.h"

namespace tandor::test {
namespace {

using Dispatch = ProviderFixture;
using enum NWInterface::InterfaceType;

TEST_F(Dispatch, OpensThenRegistersThenStarts) {
  start(configuration());
  platform_.reportPath({{"en0", wiredEthernet, 2}});
  static_cast<void>(journal_.take());
  const auto flow = platform_.tcpFlow(destination);
  EXPECT_TRUE(provider_->handleNewFlow(flow));
  EXPECT_EQ(journal_.take(), Lines{"flow1: open"});
  EXPECT_TRUE(provider_->proxyConnections().empty());
  flow->completeOpen();
  EXPECT_EQ(journal_.take(), (Lines{"out1: tcp host.example:443 via en0", "out1: handler",
                                    "out1: start on tandor_nw_connection_queue"}));
  ASSERT_EQ(provider_->proxyConnections().size(), 1);
  EXPECT_FALSE(provider_->proxyConnections()[0]->isDebug());
  // It keeps the interface that it was made with; the next one gets the new one.
  platform_.reportPath({{"wlan0", wifi, 3}});
  EXPECT_EQ(provider_->proxyConnections()[0]->mode().description(), "directly(interface:en0)");
  EXPECT_EQ(provider_->connectionMode().description(), "directly(interface:wlan0)");
}

TEST_F(Dispatch, DebugShowsWhatIsStarted) {
  start(webProxy({{"debug", "true"}}));
  relayed("listed");
  EXPECT_TRUE(provider_->proxyConnections().at(0)->isDebug());
  EXPECT_EQ(
      std::ranges::count(journal_.take(),
                         "log: start TandorProxyConnection: tcp flow [host.example:443] mode: "
                         "httpProxy(endPoint:proxy.example:3128) app:listed"),
      1);
}

TEST_F(Dispatch, QUICIsRefusedUnopenedInProxyMode) {
  start(webProxy({{"debug", "true"}}));
  const auto flow = platform_.udpFlow("listed");
  EXPECT_TRUE(provider_->handleNewUDPFlow(flow, destination));
  EXPECT_EQ(journal_.take(),
            (Lines{"flow1: closeWrite quicNotSupport", "flow1: closeRead quicNotSupport"}));
  EXPECT_FALSE(flow->completeOpen());
}

TEST_F(Dispatch, NoConnectionWithoutAnOpenFlowOrAProvider) {
  start(configuration());
  for (const bool isGone : {false, true}) {
    const auto tcp = platform_.tcpFlow(destination);
    const auto udp = platform_.udpFlow();
    provider_->handleNewFlow(tcp);
    provider_->handleNewUDPFlow(udp, destination);
    static_cast<void>(journal_.take());
    if (isGone) provider_ = nullptr;
    const auto error = isGone ? std::nullopt : std::optional(broken);
    EXPECT_TRUE(tcp->completeOpen(error) && udp->completeOpen(error));
    EXPECT_EQ(journal_.take(), isGone ? Lines() : Lines{"log: tcp flow open failed: broken"});
  }
}

TEST_F(Dispatch, FlowsAdmittedBeforeASwitchOffNeverStart) {
  start(configuration());
  const auto tcp = platform_.tcpFlow(destination);
  const auto udp = platform_.udpFlow();
  provider_->handleNewFlow(tcp);
  provider_->handleNewUDPFlow(udp, destination);
  provider_->sleep([] {});
  provider_->wake();  // even so
  const auto later = platform_.tcpFlow(destination);
  provider_->handleNewFlow(later);
  EXPECT_TRUE(tcp->completeOpen() && udp->completeOpen());
  EXPECT_TRUE(tcp->isClosed() && udp->isClosed());
  EXPECT_EQ(platform_.connectionCount(), 0);
  EXPECT_TRUE(provider_->proxyConnections().empty());
  later->completeOpen();
  EXPECT_EQ(platform_.connectionCount(), 1);
  EXPECT_FALSE(later->isClosed());
}

TEST_F(Dispatch, ClosedConnectionsLeaveTheRegistry) {
  start(configuration());
  const auto one = relayed();
  relayed();
  platform_.out(1).enter(NWConnection::State::Kind::failed, broken);
  EXPECT_TRUE(one->isClosed());
  ASSERT_EQ(provider_->proxyConnections().size(), 1);
  provider_->proxyConnections()[0]->closeAllConnWithError(std::nullopt);
  EXPECT_TRUE(provider_->proxyConnections().empty());
  // One that closes while it starts is not kept either.
  const auto unusable = platform_.tcpFlow(NWHostEndpoint{"host.example", "no port"});
  EXPECT_TRUE(provider_->handleNewFlow(unusable));
  unusable->completeOpen();
  EXPECT_TRUE(unusable->isClosed());
  EXPECT_TRUE(provider_->proxyConnections().empty());
}

}  // namespace
}  // namespace tandor::test
