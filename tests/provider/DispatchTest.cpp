#include "provider/ProviderFixture.h"

namespace tandor::test {
namespace {

using Dispatch = ProviderFixture;

const Lines startedDirectly = {"out1: tcp host.example:443 via en0", "out1: handler",
                               "out1: start on tandor_nw_connection_queue"};

TEST_F(Dispatch, OpensThenRegistersThenStarts) {
  start(configuration());
  platform_.reportPath({{"en0", NWInterface::InterfaceType::wiredEthernet, 2}});
  static_cast<void>(journal_.take());
  const auto flow = platform_.tcpFlow(destination);
  EXPECT_TRUE(provider_->handleNewFlow(flow));
  EXPECT_EQ(journal_.take(), Lines{"flow1: open"});
  EXPECT_TRUE(provider_->proxyConnections().empty());
  flow->completeOpen();
  EXPECT_EQ(journal_.take(), startedDirectly);
  ASSERT_EQ(provider_->proxyConnections().size(), 1);
  EXPECT_FALSE(provider_->proxyConnections()[0]->isDebug());
  // It keeps the interface that it was made with.
  platform_.reportPath({});
  EXPECT_EQ(provider_->proxyConnections()[0]->mode().description(), "directly(interface:en0)");
}

TEST_F(Dispatch, DebugShowsWhatIsStarted) {
  const auto startLine = [&](const AnyDictionary& raw, bool isUDP) {
    start(raw);
    if (isUDP) {
      const auto flow = platform_.udpFlow("listed");
      EXPECT_TRUE(provider_->handleNewUDPFlow(flow, destination));
      EXPECT_TRUE(flow->completeOpen());
    } else {
      relayed("listed");
    }
    EXPECT_TRUE(provider_->proxyConnections().at(0)->isDebug());
    provider_->setEnable(false);
    const Lines lines = journal_.take();
    const auto found = std::ranges::find_if(
        lines, [](const std::string& line) { return line.starts_with("log: start "); });
    return found == lines.end() ? "" : found->substr(5);
  };
  const AnyDictionary more = {{"mode", "directlyWhiteList"}, {"debug", "true"}};
  EXPECT_EQ(startLine(configuration(more), false),
            "start TandorProxyConnection: tcp flow [host.example:443] mode: "
            "directly(interface:nil) app:listed");
  EXPECT_EQ(startLine(configuration(more), true),
            "start TandorProxyConnection: udp flow [host.example:443] mode: "
            "directly(interface:nil) app:listed");
  EXPECT_EQ(startLine(webProxy({{"debug", "true"}}), false),
            "start TandorProxyConnection: tcp flow [host.example:443] mode: "
            "httpProxy(endPoint:proxy.example:3128) app:listed");
}

TEST_F(Dispatch, ModeOfTheMoment) {
  EXPECT_EQ(provider_->connectionMode().description(), "directly(interface:nil)");
  start(webProxy());
  EXPECT_EQ(provider_->connectionMode().description(), "httpProxy(endPoint:proxy.example:3128)");
  relayed("listed");
  EXPECT_EQ(journal_.take().at(1), "out1: tcp proxy.example:3128");
  start(configuration());
  platform_.reportPath({{"wlan0", NWInterface::InterfaceType::wifi, 3}});
  EXPECT_EQ(provider_->connectionMode().description(), "directly(interface:wlan0)");
}

TEST_F(Dispatch, QUICIsRefusedUnopenedInProxyMode) {
  start(webProxy({{"debug", "true"}}));
  const auto flow = platform_.udpFlow("listed");
  EXPECT_TRUE(provider_->handleNewUDPFlow(flow, destination));
  EXPECT_EQ(journal_.take(),
            (Lines{"flow1: closeWrite quicNotSupport", "flow1: closeRead quicNotSupport"}));
  EXPECT_TRUE(provider_->proxyConnections().empty());
  EXPECT_FALSE(flow->completeOpen());
}

TEST_F(Dispatch, FailedOpenMakesNoConnection) {
  start(configuration());
  const auto tcp = platform_.tcpFlow(destination);
  const auto udp = platform_.udpFlow();
  provider_->handleNewFlow(tcp);
  provider_->handleNewUDPFlow(udp, destination);
  static_cast<void>(journal_.take());
  tcp->completeOpen(broken);
  EXPECT_EQ(journal_.take(), Lines{"log: tcp flow open failed: broken"});
  udp->completeOpen(broken);
  EXPECT_EQ(journal_.take(), Lines());
  EXPECT_TRUE(provider_->proxyConnections().empty());
}

TEST_F(Dispatch, OpenAfterTheProviderIsGoneDoesNothing) {
  start(configuration());
  const auto tcp = platform_.tcpFlow(destination);
  const auto udp = platform_.udpFlow();
  provider_->handleNewFlow(tcp);
  provider_->handleNewUDPFlow(udp, destination);
  provider_ = nullptr;
  static_cast<void>(journal_.take());
  EXPECT_TRUE(tcp->completeOpen());
  EXPECT_TRUE(udp->completeOpen());
  EXPECT_EQ(journal_.take(), Lines());
}

TEST_F(Dispatch, FlowsAdmittedBeforeASwitchOffNeverStart) {
  start(configuration());
  const auto tcp = platform_.tcpFlow(destination);
  const auto udp = platform_.udpFlow();
  const auto late = platform_.tcpFlow(destination);
  provider_->handleNewFlow(tcp);
  provider_->handleNewUDPFlow(udp, destination);
  provider_->sleep([] {});
  provider_->wake();  // even so
  provider_->handleNewFlow(late);
  static_cast<void>(journal_.take());
  tcp->completeOpen();
  udp->completeOpen();
  const Lines close = {"flow1: closeRead nil", "flow1: closeWrite nil"};
  const Lines lines = journal_.take();
  EXPECT_TRUE(tcp->isClosed() && udp->isClosed());
  EXPECT_EQ(platform_.connectionCount(), 0);
  EXPECT_TRUE(provider_->proxyConnections().empty());
  late->completeOpen();
  EXPECT_EQ(platform_.connectionCount(), 1);
  EXPECT_FALSE(late->isClosed());
}

TEST_F(Dispatch, ClosedConnectionsLeaveTheRegistry) {
  start(configuration());
  const auto one = relayed();
  const auto two = relayed();
  EXPECT_EQ(provider_->proxyConnections().size(), 2);
  platform_.out(1).enter(NWConnection::State::Kind::failed, broken);
  EXPECT_TRUE(one->isClosed());
  ASSERT_EQ(provider_->proxyConnections().size(), 1);
  const auto connection = provider_->proxyConnections()[0];
  connection->closeAllConnWithError(std::nullopt);
  EXPECT_TRUE(provider_->proxyConnections().empty());
  connection->closeAllConnWithError(std::nullopt);
  EXPECT_TRUE(provider_->proxyConnections().empty());
}

TEST_F(Dispatch, ConnectionThatClosesWhileItStartsIsNotKept) {
  start(configuration());
  const auto flow = platform_.tcpFlow(NWHostEndpoint{"host.example", "no port"});
  EXPECT_TRUE(provider_->handleNewFlow(flow));
  flow->completeOpen();
  EXPECT_TRUE(flow->isClosed());
  EXPECT_TRUE(provider_->proxyConnections().empty());
}

}  // namespace
}  // namespace tandor::test
