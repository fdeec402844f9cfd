#include <thread>

#include "connection/ConnectionFixture.h"

namespace tandor::test {
namespace {

class Relay : public ConnectionFixture {
 protected:
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

TEST_F(Relay, WritesTheLastBytesBeforeItEnds) {
  using Error = std::optional<NSError>;
  const Error noError;
  for (const auto& [receiveError, writeError] :
       {std::pair(noError, noError), std::pair(Error(broken), noError),
        std::pair(noError, Error(broken))}) {
    startReady(direct);
    out().completeReceive(bytes("last"), true, receiveError);
    EXPECT_EQ(happened(), Lines{"flow1: write 'last'"});
    tcpFlow_->completeWrite(writeError);
    const Lines lines = happened();
    const Lines end = ended(description(writeError));
    ASSERT_GE(lines.size(), end.size());
    EXPECT_EQ(Lines(lines.end() - std::ssize(end), lines.end()), end);
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
}

}  // namespace
}  // namespace tandor::test
