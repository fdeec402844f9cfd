#include <thread>

#include "connection/ConnectionFixture.h"

namespace tandor::test {
namespace {

using ConnectionLifecycle = ConnectionFixture;

TEST_F(ConnectionLifecycle, StartsReadyAndIdle) {
  const auto connection =
      TandorProxyConnection::make(direct(), ConnectionNetwork::tcp(flow_, destination));
  const auto other =
      TandorProxyConnection::make(direct(), ConnectionNetwork::tcp(flow_, destination));
  EXPECT_EQ(connection->state(), ConnectionState::ready);
  EXPECT_EQ(connection->connection(), nullptr);
  EXPECT_FALSE(connection->flowHandled() || connection->isDebug());
  EXPECT_EQ(connection->nwQueue().label(), "tandor_nw_connection_queue");
  EXPECT_NE(&connection->nwQueue(), &other->nwQueue());
  EXPECT_NE(connection->identifier(), other->identifier());
  EXPECT_EQ(journal_.take(), Lines());
}

TEST_F(ConnectionLifecycle, ModesAndErrorsDescribeThemselves) {
  EXPECT_EQ(direct().description(), "directly(interface:nil)");
  EXPECT_EQ(direct(ethernet).description(), "directly(interface:en0)");
  EXPECT_EQ(proxied().description(), "httpProxy(endPoint:proxy.example:3128)");
  const TandorProxyError errors[] = {TandorProxyError::invalidEndpointType("Kind"),
                                     TandorProxyError::invalidEndpointPort("7x"),
                                     TandorProxyError::objectIsReleased()};
  const char* const forms[] = {R"(invalidEndpointType(raw: "Kind"))",
                               R"(invalidEndpointPort(raw: "7x"))", "objectIsReleased"};
  for (std::size_t code = 0; code < std::size(errors); ++code) {
    EXPECT_EQ(errors[code].platformError().code(), static_cast<std::int64_t>(code));
    EXPECT_EQ(errors[code].platformError().description(), forms[code]);
  }
}

TEST_F(ConnectionLifecycle, StartOpensTheConnectionOfItsMode) {
  make(direct(ethernet));
  connection_->start();
  EXPECT_EQ(happened(), (Lines{"out1: tcp host.example:443 via en0", "out1: handler",
                               "out1: start on tandor_nw_connection_queue"}));
  EXPECT_EQ(connection_->state(), ConnectionState::start);

  makeUDP(direct(), NWHostEndpoint{"2001:db8::1", "0"});
  forgetWhatHappened();
  connection_->start();
  EXPECT_EQ(happened().at(0), "out2: udp 2001:db8::1:0");

  make(proxied());
  forgetWhatHappened();
  connection_->start();
  EXPECT_EQ(happened(), (Lines{"out3: tcp proxy.example:3128", "out3: handler",
                               "out3: start on tandor_nw_connection_queue"}));
  EXPECT_NE(connection_->mode().httpProxy(), nullptr);
}

TEST_F(ConnectionLifecycle, StartAgainReplacesTheConnection) {
  make(direct());
  connection_->start();
  out(1).enter(State::ready);
  flow_->completeRead(bytes("one"));
  forgetWhatHappened();
  connection_->start();
  EXPECT_EQ(happened(),
            (Lines{"out1: handler cleared", "out1: cancel", "out2: tcp host.example:443",
                   "out2: handler", "out2: start on tandor_nw_connection_queue"}));
  // What the replaced one still completes concerns nobody.
  EXPECT_TRUE(out(1).completeSend(broken));
  EXPECT_TRUE(out(1).completeReceive(bytes("late")));
  EXPECT_FALSE(out(1).enter(State::failed, broken));
  EXPECT_EQ(happened(), Lines());
  EXPECT_EQ(connection_->connection().get(), &out(2));
}

TEST_F(ConnectionLifecycle, UnusableDestinationClosesTheFlowWithoutAConnection) {
  const std::pair<NWFlowEndpoint, std::string> cases[] = {
      {NWOpaqueEndpoint{"NWBonjourServiceEndpoint"},
       R"(invalidEndpointType(raw: "NWBonjourServiceEndpoint"))"},
      {NWHostEndpoint{"host.example", "https"}, R"(invalidEndpointPort(raw: "https"))"},
      {NWHostEndpoint{"host.example", "65536"}, R"(invalidEndpointPort(raw: "65536"))"},
      {NWHostEndpoint{"host.example", ""}, R"(invalidEndpointPort(raw: ""))"},
      {NWHostEndpoint{"host.example", "+443"}, R"(invalidEndpointPort(raw: "+443"))"},
  };
  for (const auto& [endpoint, error] : cases) {
    make(direct(), /*isDebug=*/false, endpoint);
    forgetWhatHappened();
    connection_->start();
    EXPECT_EQ(happened(), closed(error));
    EXPECT_EQ(connection_->state(), ConnectionState::invalid);
  }
}

TEST_F(ConnectionLifecycle, CloseCancelsThenClosesThenTellsTheDelegate) {
  make(direct());
  connection_->start();
  out().enter(State::ready);
  forgetWhatHappened();
  connection_->closeAllConnWithError(broken);
  // Everything has happened when the call returns, whatever thread the queue would use.
  EXPECT_EQ(journal_.take(), ended("broken"));
  EXPECT_EQ(connection_->connection(), nullptr);
  EXPECT_EQ(connection_->state(), ConnectionState::invalid);
  // A second time there is only the flow left to close.
  connection_->closeAllConnWithError(std::nullopt);
  EXPECT_EQ(happened(), closed());
}

TEST_F(ConnectionLifecycle, CloseWaitsForItsTurnOnTheQueue) {
  make(direct());
  connection_->start();
  std::atomic<bool> mayGoOn{false};
  connection_->nwQueue().async([&] {
    while (!mayGoOn) std::this_thread::yield();
    journal_.note("earlier block");
  });
  static_cast<void>(journal_.take());
  const std::jthread opener([&] { mayGoOn = true; });
  connection_->closeAllConnWithError(std::nullopt);
  EXPECT_EQ(journal_.take(), Lines{"earlier block"} + ended());
}

TEST_F(ConnectionLifecycle, ClosesWithoutADelegate) {
  make(direct());
  connection_->setDelegate({});
  connection_->closeAllConnWithError(std::nullopt);
  EXPECT_EQ(happened(), (Lines{"flow1: closeRead nil", "flow1: closeWrite nil"}));
  EXPECT_EQ(connection_->state(), ConnectionState::invalid);
}

TEST_F(ConnectionLifecycle, DestructionEndsWhateverThereIs) {
  make(direct());
  connection_ = nullptr;
  EXPECT_EQ(happened(), closed());

  make(proxied(), /*isDebug=*/true);
  connection_->start();
  forgetWhatHappened();
  connection_ = nullptr;
  EXPECT_EQ(happened(), ended() + Lines{"log: proxy conn dealloc"});
  // The handlers hold nothing and reach nothing.
  EXPECT_FALSE(out().enter(State::ready));
  EXPECT_EQ(happened(), Lines());
}

TEST_F(ConnectionLifecycle, PendingReadsOwnItAndPendingReceivesDoNot) {
  make(direct());
  connection_->start();
  out().enter(State::ready);  // reads the flow and receives
  forgetWhatHappened();
  const std::weak_ptr<TandorProxyConnection> watched = connection_;
  connection_ = nullptr;
  EXPECT_FALSE(watched.expired());
  flow_->completeRead(std::nullopt);
  EXPECT_EQ(happened(), ended() + closed());  // the end, then the destructor's close
  EXPECT_TRUE(watched.expired());
  EXPECT_TRUE(out().completeReceive(bytes("late")));
  EXPECT_EQ(happened(), Lines());
}

}  // namespace
}  // namespace tandor::test
