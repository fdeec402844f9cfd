#include <functional>
#include <thread>

#include "connection/ConnectionFixture.h"

namespace tandor::test {
namespace {

class Relay : public ConnectionFixture {
 protected:
  using Error = std::optional<NSError>;
  using Step = std::function<void()>;

  // What may happen to a relay.
  Step read(const std::optional<Data>& data, const Error& error = {}) {
    return [=, this] { tcpFlow_->completeRead(data, error); };
  }
  Step sent(const Error& error = {}) {
    return [=, this] { out().completeSend(error); };
  }
  Step received(const std::optional<Data>& data, bool isComplete = false, const Error& error = {}) {
    return [=, this] { out().completeReceive(data, isComplete, error); };
  }
  Step written(const Error& error = {}) {
    return [=, this] { tcpFlow_->completeWrite(error); };
  }

  static std::vector<Data> datagrams(std::initializer_list<std::string_view> texts) {
    std::vector<Data> list;
    for (const std::string_view text : texts) list.push_back(bytes(text));
    return list;
  }
};

TEST_F(Relay, EachLoopHasOneChunkInFlight) {
  start(direct);
  out().enter(State::preparing);
  out().enter(State::cancelled);
  EXPECT_EQ(happened(), Lines());
  out().enter(State::ready);
  EXPECT_EQ(happened(), (Lines{"flow1: read", "out1: receive 1..2048"}));
  const Data large = bytes(std::string(100'000, 'x'));
  tcpFlow_->completeRead(large);
  EXPECT_EQ(happened(), Lines{"out1: send " + show(large)});
  out().completeSend();
  EXPECT_EQ(happened(), Lines{"flow1: read"});
  out().completeReceive(bytes("one"), false, broken);  // bytes count more than an error beside them
  EXPECT_EQ(happened(), Lines{"flow1: write 'one'"});
  tcpFlow_->completeWrite();
  EXPECT_EQ(happened(), Lines{"out1: receive 1..2048"});
  // Completions may come from any thread.
  std::thread([&] { tcpFlow_->completeRead(bytes("up")); }).join();
  EXPECT_EQ(happened(), Lines{"out1: send 'up'"});
  out().completeReceive(Data());
  std::thread([&] { tcpFlow_->completeWrite(); }).join();
  EXPECT_EQ(happened(), (Lines{"flow1: write ''", "out1: receive 1..2048"}));
}

TEST_F(Relay, EveryEnd) {
  const Data x = bytes("x");
  const std::string complete = "log: nw connection receive complete";
  const std::string failedWrite = "log: write flow data failed: %@ broken";
  const std::string failedReceive = "log: nw connection receive failed: isComplete: ";
  const struct {
    std::vector<Step> steps;
    Lines first;        // what happens before the end
    std::string error;  // what the flow is closed with
  } cases[] = {
      {{read(std::nullopt)}, {}, "nil"},
      {{read(Data())}, {}, "nil"},
      {{read(std::nullopt, broken)}, {}, "broken"},
      {{read(x, broken)}, {}, "broken"},
      {{read(x), sent(broken)},
       {"out1: send 'x'", "log: connection send failed: broken"},
       "broken"},
      {{received(std::nullopt, true)}, {failedReceive + "true, error: null"}, "nil"},
      {{received(std::nullopt, false, broken)}, {failedReceive + "false, error: broken"}, "broken"},
      {{received(x, true), written()}, {"flow1: write 'x'", complete}, "nil"},
      {{received(Data(), true), written()}, {"flow1: write ''", complete}, "nil"},
      {{received(x, true, broken), written()}, {"flow1: write 'x'", complete}, "nil"},
      {{received(x), written(broken)}, {"flow1: write 'x'", failedWrite}, "broken"},
      {{received(x, true), written(broken)}, {"flow1: write 'x'", failedWrite}, "broken"}};
  for (const auto& [steps, first, error] : cases) {
    startReady(direct, {.isDebug = true});
    for (const Step& step : steps) step();
    EXPECT_EQ(happened(), first + ended(error));
    EXPECT_EQ(connection_->state(), ConnectionState::invalid);
  }
}

TEST_F(Relay, CarriesDatagramsOneByOne) {
  startReady(direct, {.isUDP = true});
  out().completeReceive(bytes("answer"));
  EXPECT_EQ(happened(), Lines{"flow1: write 'answer' from host.example:443"});
  udpFlow_->completeWrite();
  EXPECT_EQ(happened(), Lines{"out1: receive 1..2048"});
  udpFlow_->completeRead(datagrams({"one", "two", "three"}));
  for (const char* text : {"one", "two", "three"}) {
    EXPECT_EQ(happened(), Lines{"out1: send '" + std::string(text) + "'"});
    out().completeSend();
  }
  EXPECT_EQ(happened(), Lines{"flow1: read"});
  udpFlow_->completeRead(datagrams({"four", "five"}));
  EXPECT_EQ(happened(), Lines{"out1: send 'four'"});
  out().completeSend(broken);
  EXPECT_EQ(happened(), Lines{"log: connection send failed: broken"} + ended("broken"));
  using List = std::optional<std::vector<Data>>;
  const std::pair<List, Error> cases[] = {{List(), Error()},
                                          {List(), broken},
                                          {datagrams({"dropped"}), broken},
                                          {datagrams({}), Error()}};
  for (const auto& [list, error] : cases) {
    startReady(direct, {.isUDP = true});
    udpFlow_->completeRead(list, error);
    EXPECT_EQ(happened(), ended(description(error)));
  }
}

}  // namespace
}  // namespace tandor::test
