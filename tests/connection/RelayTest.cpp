#include <thread>

#include "connection/ConnectionFixture.h"

namespace tandor::test {
namespace {

/// Connections whose relay is open: the flow is being read, the outbound connection receives.
class Relay : public ConnectionFixture {
 protected:
  void open(bool isDebug = false) {
    make(direct(), isDebug);
    openOutbound();
  }
  void openUDP() {
    makeUDP(direct());
    openOutbound();
  }
  static std::vector<Data> datagrams(std::initializer_list<std::string_view> texts) {
    std::vector<Data> list;
    for (const std::string_view text : texts) list.push_back(bytes(text));
    return list;
  }

 private:
  void openOutbound() {
    connection_->start();
    out(platform_.connectionCount()).enter(State::ready);
    forgetWhatHappened();
  }
};

TEST_F(Relay, OpensWithAReadAndAReceive) {
  make(direct());
  connection_->start();
  forgetWhatHappened();
  out().enter(State::preparing);
  out().enter(State::cancelled);
  EXPECT_EQ(happened(), Lines());
  out().enter(State::ready);
  EXPECT_EQ(happened(), (Lines{"flow1: read", "out1: receive 1..2048"}));
}

TEST_F(Relay, DirectConnectionThatDoesNotComeAboutEndsTheFlow) {
  for (const auto& [state, name] :
       {std::pair(State::waiting, "waiting"), {State::failed, "failed"}}) {
    make(direct());
    connection_->start();
    forgetWhatHappened();
    const std::size_t number = platform_.connectionCount();
    out(number).enter(state, broken);
    EXPECT_EQ(happened(), Lines{"log: nw direct connection failed: broken; state: " +
                                std::string(name) + "(broken)"} +
                              ended("broken", "out" + std::to_string(number)));
  }
}

TEST_F(Relay, ReadsTheFlowOnlyOnceTheSendCompleted) {
  open();
  flow_->completeRead(bytes("one"));
  EXPECT_EQ(happened(), Lines{"out1: send 'one'"});
  out().completeSend();
  EXPECT_EQ(happened(), Lines{"flow1: read"});
  const Data large = bytes(std::string(100'000, 'x'));
  flow_->completeRead(large);
  EXPECT_EQ(happened(), Lines{"out1: send " + show(large)});
  EXPECT_EQ(out().lastSent().bytes().data(), large.bytes().data());  // passed on, not copied
}

TEST_F(Relay, ReceivesOnlyOnceTheWriteCompleted) {
  open();
  out().completeReceive(bytes("one"));
  EXPECT_EQ(happened(), Lines{"flow1: write 'one'"});
  flow_->completeWrite();
  EXPECT_EQ(happened(), Lines{"out1: receive 1..2048"});
}

TEST_F(Relay, CompletionsComeFromAnyThread) {
  open();
  std::thread([&] { flow_->completeRead(bytes("up")); }).join();
  EXPECT_EQ(happened(), Lines{"out1: send 'up'"});
  out().completeReceive(bytes("down"));
  std::thread([&] { flow_->completeWrite(); }).join();
  EXPECT_EQ(happened(), (Lines{"flow1: write 'down'", "out1: receive 1..2048"}));
}

TEST_F(Relay, EveryEnd) {
  const struct {
    const char* what;
    std::function<void(ScriptedTCPFlow&, ScriptedConnection&)> happens;
    Lines first;                 // what happens before the end
    std::string error;           // what the flow is closed with
    bool onlyWithDebug = false;  // the first lines appear only in debug mode
  } cases[] = {
      {"end of the flow", [](auto& flow, auto&) { flow.completeRead(std::nullopt); }, {}, "nil"},
      {"empty read", [](auto& flow, auto&) { flow.completeRead(Data()); }, {}, "nil"},
      {"failed read",
       [](auto& flow, auto&) { flow.completeRead(std::nullopt, broken); },
       {},
       "broken"},
      {"bytes beside a read's error",
       [](auto& flow, auto&) { flow.completeRead(bytes("dropped"), broken); },
       {},
       "broken"},
      {"failed send",
       [](auto& flow, auto& out) {
         flow.completeRead(bytes("x"));
         out.completeSend(broken);
       },
       {"out1: send 'x'", "log: connection send failed: broken"},
       "broken"},
      {"end of the stream",
       [](auto&, auto& out) { out.completeReceive(std::nullopt, true); },
       {"log: nw connection receive failed: isComplete: true, error: null"},
       "nil",
       true},
      {"failed receive",
       [](auto&, auto& out) { out.completeReceive(std::nullopt, false, broken); },
       {"log: nw connection receive failed: isComplete: false, error: broken"},
       "broken",
       true},
      {"last bytes",
       [](auto& flow, auto& out) {
         out.completeReceive(bytes("last"), true);
         flow.completeWrite();
       },
       {"flow1: write 'last'", "log: nw connection receive complete"},
       "nil"},
      {"empty last bytes",
       [](auto& flow, auto& out) {
         out.completeReceive(Data(), true);
         flow.completeWrite();
       },
       {"flow1: write ''", "log: nw connection receive complete"},
       "nil"},
      {"last bytes beside an error",
       [](auto& flow, auto& out) {
         out.completeReceive(bytes("last"), true, broken);
         flow.completeWrite();
       },
       {"flow1: write 'last'", "log: nw connection receive complete"},
       "nil"},
      {"failed write",
       [](auto& flow, auto& out) {
         out.completeReceive(bytes("x"));
         flow.completeWrite(broken);
       },
       {"flow1: write 'x'", "log: write flow data failed: %@ broken"},
       "broken"},
      {"failed last write",
       [](auto& flow, auto& out) {
         out.completeReceive(bytes("x"), true);
         flow.completeWrite(broken);
       },
       {"flow1: write 'x'", "log: write flow data failed: %@ broken"},
       "broken"},
  };
  for (const bool isDebug : {false, true}) {
    for (const auto& expected : cases) {
      SCOPED_TRACE(expected.what);
      make(direct(), isDebug);
      connection_->start();
      const std::size_t number = platform_.connectionCount();
      out(number).enter(State::ready);
      forgetWhatHappened();
      expected.happens(*flow_, out(number));
      const bool hasFirst = isDebug || !expected.onlyWithDebug;
      Lines lines = (hasFirst ? expected.first : Lines()) + ended(expected.error);
      for (std::string& line : lines)
        if (line.starts_with("out1")) line.replace(3, 1, std::to_string(number));
      EXPECT_EQ(happened(), lines);
      EXPECT_EQ(connection_->state(), ConnectionState::invalid);
      // What is still under way completes late and reaches nobody but the flow's reader.
      flow_->completeRead(std::nullopt);
      flow_->completeWrite();
      out(number).completeSend();
      out(number).completeReceive(bytes("late"));
      forgetWhatHappened();
    }
  }
}

TEST_F(Relay, ReceivedBytesCountMoreThanAnErrorBesideThem) {
  open();
  out().completeReceive(bytes("x"), false, broken);
  flow_->completeWrite();
  EXPECT_EQ(happened(), (Lines{"flow1: write 'x'", "out1: receive 1..2048"}));
  out().completeReceive(Data());
  flow_->completeWrite();
  EXPECT_EQ(happened(), (Lines{"flow1: write ''", "out1: receive 1..2048"}));
}

TEST_F(Relay, NothingIsMovedAfterAClose) {
  open();
  out().completeReceive(bytes("x"));
  connection_->closeAllConnWithError(std::nullopt);
  forgetWhatHappened();
  flow_->completeRead(bytes("late"));
  flow_->completeWrite();
  EXPECT_EQ(happened(), Lines());

  open();
  flow_->completeRead(bytes("x"));
  forgetWhatHappened();
  connection_->closeAllConnWithError(std::nullopt);
  forgetWhatHappened();
  EXPECT_TRUE(out(2).completeSend());
  EXPECT_TRUE(out(2).completeReceive(bytes("late")));
  EXPECT_EQ(happened(), Lines());
}

TEST_F(Relay, DatagramsOfOneReadAreSentInOrderBeforeTheNextRead) {
  openUDP();
  udpFlow_->completeRead(datagrams({"one", "two", "three"}));
  for (const char* text : {"one", "two", "three"}) {
    EXPECT_EQ(happened(), Lines{"out1: send '" + std::string(text) + "'"});
    out().completeSend();
  }
  EXPECT_EQ(happened(), Lines{"flow2: read"});
  udpFlow_->completeRead(datagrams({"four"}));
  out().completeSend();
  EXPECT_EQ(happened(), (Lines{"out1: send 'four'", "flow2: read"}));
}

TEST_F(Relay, DatagramsAreWrittenAsComingFromTheDestination) {
  openUDP();
  out().completeReceive(bytes("answer"));
  EXPECT_EQ(happened(), Lines{"flow2: write 'answer' from host.example:443"});
  udpFlow_->completeWrite();
  EXPECT_EQ(happened(), Lines{"out1: receive 1..2048"});
}

TEST_F(Relay, EveryEndOfAUDPFlow) {
  const struct {
    std::optional<std::vector<Data>> list;
    std::optional<NSError> error;
    std::string shown;
  } cases[] = {{std::nullopt, std::nullopt, "nil"},
               {std::nullopt, broken, "broken"},
               {datagrams({"dropped"}), broken, "broken"},
               {std::vector<Data>(), std::nullopt, "nil"}};
  for (const auto& [list, error, shown] : cases) {
    openUDP();
    const std::string number = std::to_string(platform_.connectionCount());
    udpFlow_->completeRead(list, error);
    EXPECT_EQ(happened(), ended(shown, "out" + number,
                                "flow" + std::to_string(platform_.connectionCount() + 1)));
  }
}

TEST_F(Relay, FailedDatagramDropsTheRestOfTheBatch) {
  openUDP();
  udpFlow_->completeRead(datagrams({"one", "two"}));
  out().completeSend(broken);
  EXPECT_EQ(happened(), (Lines{"out1: send 'one'", "log: connection send failed: broken"}) +
                            ended("broken", "out1", "flow2"));
}

}  // namespace
}  // namespace tandor::test
