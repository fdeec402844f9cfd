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

TEST_F(Dispatch, NothingStartsThatWasNotOpenedInTime) {
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
