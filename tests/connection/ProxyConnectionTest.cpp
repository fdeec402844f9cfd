#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "connection/TandorProxyConnection.h"
#include "support/Hello.h"
#include "support/ScriptedPlatform.h"

namespace tandor::test {
namespace {

using State = NWConnection::State::Kind;

Lines operator+(Lines left, const Lines& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

/// How the close of flow1 shows.
Lines closed(const std::string& error = "nil") {
  return {"flow1: closeRead " + error, "flow1: closeWrite " + error, "delegate: told"};
}

/// How a whole end shows: the outbound connection cancelled, then the flow closed.
Lines ended(const std::string& error = "nil") {
  return Lines{"out1: handler cleared", "out1: cancel"} + closed(error);
}

/// One proxy connection between a scripted flow, flow1, and scripted outbound ones, with a delegate
/// that notes "delegate: told".
class ProxyConnection : public testing::Test {
 protected:
  static inline const NSError broken{"Test", 7, "broken"};
  static inline const Data hello = clientHello("name.example");
  static inline const ConnectionMode direct = ConnectionMode::directly(std::nullopt);
  static inline const ConnectionMode proxied = ConnectionMode::httpProxy(
      NWEndpoint::hostPort(NWEndpoint::Host::name("proxy.example"), NWEndpoint::Port(3128)));

  void TearDown() override { rest(); }

  /// Makes the connection, with everything scripted made anew.
  void make(const ConnectionMode& mode, ConnectReply connectReply = ConnectReply::phrase) {
    rest();
    connection_ = nullptr;
    flow_ = nullptr;
    platform_.reset();
    platform_.emplace(journal_);
    const NWHostEndpoint destination{"host.example", "443"};
    flow_ = platform_->tcpFlow(destination);
    connection_ = TandorProxyConnection::make(mode, ConnectionNetwork::tcp(flow_, destination));
    connection_->setConnectReply(connectReply);
    connection_->setDelegate(delegate_);
    queue_ = connection_->nwQueue().shared_from_this();
    forget();
  }
  /// The same, and has it started.
  void start(const ConnectionMode& mode, ConnectReply connectReply = ConnectReply::phrase) {
    make(mode, connectReply);
    connection_->start();
    forget();
  }
  /// The same, up to the outbound connection's being ready.
  void startReady(const ConnectionMode& mode, ConnectReply connectReply = ConnectReply::phrase) {
    start(mode, connectReply);
    out().enter(State::ready);
    forget();
  }

  [[nodiscard]] ScriptedConnection& out(std::size_t number = 1) { return platform_->out(number); }

  /// What happened since the last call, once the connection's queue has come to rest.
  [[nodiscard]] Lines happened() {
    rest();
    return journal_.take();
  }
  void forget() { static_cast<void>(happened()); }

  Journal journal_;
  std::optional<ScriptedBackend> platform_;
  std::shared_ptr<ScriptedTCPFlow> flow_;
  std::shared_ptr<TandorProxyConnection> connection_;

 private:
  struct Delegate final : TandorProxyConnectionDelegate {
    explicit Delegate(Journal& journalToUse) : journal(journalToUse) {}
    void proxyConnectionDidClose(const TandorProxyConnection& /*connection*/) override {
      journal.note("delegate: told");
    }
    Journal& journal;
  };

  void rest() {
    if (queue_ != nullptr) queue_->sync([] {});
  }

  std::shared_ptr<Delegate> delegate_ = std::make_shared<Delegate>(journal_);
  std::shared_ptr<DispatchQueue> queue_;
};

TEST_F(ProxyConnection, EachLoopHasOneChunkInFlight) {
  start(direct);
  out().enter(State::preparing);
  out().enter(State::cancelled);
  EXPECT_EQ(happened(), Lines());
  out().enter(State::ready);
  EXPECT_EQ(happened(), (Lines{"flow1: read", "out1: receive 1..2048"}));
  const Data large = bytes(std::string(100'000, 'x'));
  flow_->completeRead(large);
  EXPECT_EQ(happened(), Lines{"out1: send " + show(large)});
  out().completeSend();
  EXPECT_EQ(happened(), Lines{"flow1: read"});
  out().completeReceive(bytes("one"), false, broken);  // bytes count more than an error beside them
  EXPECT_EQ(happened(), Lines{"flow1: write 'one'"});
  flow_->completeWrite();
  EXPECT_EQ(happened(), Lines{"out1: receive 1..2048"});
  // Completions may come from any thread.
  std::thread([&] { flow_->completeRead(bytes("up")); }).join();
  EXPECT_EQ(happened(), Lines{"out1: send 'up'"});
  out().completeReceive(Data());
  std::thread([&] { flow_->completeWrite(); }).join();
  EXPECT_EQ(happened(), (Lines{"flow1: write ''", "out1: receive 1..2048"}));
  out().completeSend(broken);
  EXPECT_EQ(happened(), Lines{"log: connection send failed: broken"} + ended("broken"));
}

TEST_F(ProxyConnection, WritesTheLastBytesBeforeItEnds) {
  using Error = std::optional<NSError>;
  const std::pair<Error, Error> errors[] = {{}, {broken, {}}, {{}, broken}};
  for (const auto& [receiveError, writeError] : errors) {
    startReady(direct);
    out().completeReceive(bytes("last"), true, receiveError);
    EXPECT_EQ(happened(), Lines{"flow1: write 'last'"});
    flow_->completeWrite(writeError);
    Lines lines = happened();
    lines.erase(lines.begin());  // a word in the log
    EXPECT_EQ(lines, ended(description(writeError)));
    EXPECT_EQ(connection_->state(), ConnectionState::invalid);
  }
}

TEST_F(ProxyConnection, SwitchesToDirectModeWhenItsRequestCannotBeSent) {
  startReady(proxied);
  flow_->completeRead(hello);
  forget();
  out().completeSend(broken);
  EXPECT_EQ(happened(),
            (Lines{"out1: handler cleared", "out1: cancel",
                   "log: change connection to direct mode, reason: nw connect request send "
                   "failed:broken",
                   "out2: to host.example:443", "out2: handler",
                   "out2: start on tandor_nw_connection_queue"}));
  EXPECT_FALSE(out(1).enter(State::failed, broken));
  out(2).enter(State::ready);
  EXPECT_EQ(happened(), (Lines{"out2: send " + show(hello), "out2: receive 1..2048"}));
}

TEST_F(ProxyConnection, CloseCancelsThenClosesThenTellsTheDelegate) {
  startReady(direct);
  connection_->closeAllConnWithError(broken);
  // Everything has happened when the call returns, whatever thread the queue would use.
  EXPECT_EQ(journal_.take(), ended("broken"));
  // A second time there is only the flow left to close, and nobody to tell.
  connection_->setDelegate({});
  connection_->closeAllConnWithError(std::nullopt);
  EXPECT_EQ(happened(), (Lines{"flow1: closeRead nil", "flow1: closeWrite nil"}));
}

TEST_F(ProxyConnection, CloseWaitsForItsTurnOnTheQueue) {
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

// What completes after a close must not bring the flow back to life.
TEST_F(ProxyConnection, NothingHappensAfterAClose) {
  using Step = std::function<void()>;
  const auto reading = [this](const Data& first) -> Step {
    return [this, first] { flow_->completeRead(first); };
  };
  const Step sent = [this] { out().completeSend(); };
  const Step received = [this] { out().completeReceive(bytes("Connection Established")); };
  const Step failed = [this] { out().completeReceive(std::nullopt, false, broken); };
  const struct {
    ConnectionMode mode;
    std::vector<Step> before;
    std::vector<Step> late;
  } cases[] = {{proxied, {}, {reading(hello)}},
               {proxied, {}, {reading(bytes("GET / HTTP/1.1"))}},
               {proxied, {}, {reading(bytes("neither"))}},
               {proxied, {reading(hello)}, {[this] { out().completeSend(broken); }}},
               {proxied, {reading(hello), sent}, {received}},
               {proxied, {reading(hello), sent}, {failed}},
               {direct, {reading(hello)}, {sent, received}},
               {direct, {received}, {reading(hello), [this] { flow_->completeWrite(); }}}};
  for (const auto& [mode, before, late] : cases) {
    for (const ConnectReply judged : {ConnectReply::phrase, ConnectReply::status}) {
      startReady(mode, judged);
      for (const Step& step : before) step();
      connection_->closeAllConnWithError(std::nullopt);
      forget();
      for (const Step& step : late) step();
      EXPECT_EQ(happened(), Lines());
    }
  }
}

TEST_F(ProxyConnection, DestructionEndsWhateverThereIs) {
  make(direct);
  connection_ = nullptr;
  EXPECT_EQ(happened(), closed());
  start(proxied);
  connection_ = nullptr;
  EXPECT_EQ(happened(), ended());
  EXPECT_FALSE(out().enter(State::ready));
}

TEST_F(ProxyConnection, PendingReadsAndReceivesOwnIt) {
  startReady(direct);
  const std::weak_ptr<TandorProxyConnection> watched = connection_;
  connection_ = nullptr;
  EXPECT_FALSE(watched.expired());
  flow_->completeRead(std::nullopt);
  EXPECT_EQ(happened(), ended());
  EXPECT_FALSE(watched.expired());
  EXPECT_TRUE(out().completeReceive(bytes("late")));
  EXPECT_EQ(happened(), closed());  // by the destructor
  EXPECT_TRUE(watched.expired());
}

}  // namespace
}  // namespace tandor::test
