#include "provider/ProviderFixture.h"

namespace tandor::test {
namespace {

using Dispatch = ProviderFixture;

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

TEST_F(Dispatch, WhatClosesWhileItStartsIsNotRegistered) {
  start(configuration());
  const auto unusable = platform_.tcpFlow(NWHostEndpoint{"host.example", "no port"});
  EXPECT_TRUE(provider_->handleNewFlow(unusable));
  unusable->completeOpen();
  EXPECT_TRUE(unusable->isClosed());
  EXPECT_TRUE(provider_->proxyConnections().empty());
}

}  // namespace
}  // namespace tandor::test
