#include <atomic>
#include <thread>

#include "connection/ConnectionFixture.h"

namespace tandor::test {
namespace {

using ConnectionLifecycle = ConnectionFixture;

TEST_F(ConnectionLifecycle, StartAgainReplacesTheConnection) {
  startReady(direct);
  tcpFlow_->completeRead(bytes("one"));
  forget();
  connection_->start();
  EXPECT_EQ(happened(),
            (Lines{"out1: handler cleared", "out1: cancel", "out2: tcp host.example:443",
                   "out2: handler", "out2: start on tandor_nw_connection_queue"}));
  // What the replaced one still completes concerns nobody.
  EXPECT_TRUE(out(1).completeSend(broken));
  EXPECT_TRUE(out(1).completeReceive(bytes("late")));
  EXPECT_FALSE(out(1).enter(State::failed, broken));
  EXPECT_EQ(happened(), Lines());
}

TEST_F(ConnectionLifecycle, CloseCancelsThenClosesThenTellsTheDelegate) {
  startReady(direct);
  connection_->closeAllConnWithError(broken);
  // Everything has happened when the call returns, whatever thread the queue would use.
  EXPECT_EQ(journal_.take(), ended("broken"));
  // A second time there is only the flow left to close, and nobody to tell.
  connection_->setDelegate({});
  connection_->closeAllConnWithError(std::nullopt);
  EXPECT_EQ(happened(), (Lines{"flow1: closeRead nil", "flow1: closeWrite nil"}));
}

TEST_F(ConnectionLifecycle, CloseWaitsForItsTurnOnTheQueue) {
  start(direct);
  std::atomic<bool> mayGoOn{false};
  connection_->nwQueue().async([&] {
    while (!mayGoOn) std::this_thread::yield();
    journal_.note("earlier block");
  });
  const std::jthread opener([&] { mayGoOn = true; });
  connection_->closeAllConnWithError(std::nullopt);
  EXPECT_EQ(journal_.take(), Lines{"earlier block"} + ended());
}

TEST_F(ConnectionLifecycle, DestructionEndsWhateverThereIs) {
  make(direct);
  connection_ = nullptr;
  EXPECT_EQ(happened(), closed());
  start(proxied, {.isDebug = true});
  connection_ = nullptr;
  EXPECT_EQ(happened(), ended() + Lines{"log: proxy conn dealloc"});
  EXPECT_FALSE(out().enter(State::ready));
}

TEST_F(ConnectionLifecycle, PendingReadsAndReceivesOwnIt) {
  startReady(direct);
  const std::weak_ptr<TandorProxyConnection> watched = connection_;
  connection_ = nullptr;
  EXPECT_FALSE(watched.expired());
  tcpFlow_->completeRead(std::nullopt);
  EXPECT_EQ(happened(), ended());
  EXPECT_FALSE(watched.expired());
  EXPECT_TRUE(out().completeReceive(bytes("late")));
  EXPECT_EQ(happened(), closed());  // by the destructor
  EXPECT_TRUE(watched.expired());
}

}  // namespace
}  // namespace tandor::test
