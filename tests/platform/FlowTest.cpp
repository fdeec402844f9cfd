#include <cerrno>

#include "platform/Objects.h"

namespace tandor::test {
namespace {

using namespace std::chrono_literals;

const NSError failure("test", 7, "failure");

class TCPFlowTest : public LoopTest {
 protected:
  [[nodiscard]] TCPFlow openFlow() const {
    TCPFlow pair = makeTCPFlow(loop());
    EXPECT_EQ(codeOf(open(*pair.flow).get()), 0);
    return pair;
  }
};

std::string record(std::size_t length, char type = '\x16') {
  return std::string{type, '\x03', '\x01', static_cast<char>(length >> 8),
                     static_cast<char>(length)} +
         pattern(length);
}

TEST_F(TCPFlowTest, FirstReadBringsTheWholeFirstRecord) {
  const std::string hello = record(700);
  const std::string big = record(std::size_t{16} * 1024);
  const std::string tooLong = record(0xFFFF).substr(0, (std::size_t{16} * 1024) + 5);
  std::vector<std::string> bytes;
  for (const char byte : record(30)) bytes.emplace_back(1, byte);
  struct Case {
    std::vector<std::string> pieces;
    std::string behind = "\x16";  // only the first read waits for a record
    bool isPatient = false;       // it waits for more, for a while
  };
  const std::vector<Case> cases = {
      {{"G"}},
      {{record(700, '\x17').substr(0, 3)}},
      {{hello}},
      {{hello + "\x14\x03"}},
      {{hello.substr(0, 100), hello.substr(100)}},
      {{hello.substr(0, 100), hello.substr(100) + "more"}},
      {bytes},
      {{hello.substr(0, 3), hello.substr(3, 1), hello.substr(4)}},
      {{"\x16\x03", std::string("\x01\0\0", 3)}},  // empty
      {{big.substr(0, 10'000), big.substr(10'000)}},
      {{tooLong.substr(0, 10'000), tooLong.substr(10'000)}},
      {{hello.substr(0, 5)}, hello.substr(5), true},
      {{hello.substr(0, 1)}, hello.substr(1), true},
      {{hello.substr(0, 600)}, ""},  // ends in between
  };
  for (int number = 0; const auto& [pieces, behind, isPatient] : cases) {
    SCOPED_TRACE(number++);
    auto [flow, app] = openFlow();
    const auto begin = std::chrono::steady_clock::now();
    const auto first = read(*flow);
    std::string sent;
    for (const std::string& piece : pieces) {
      passThrough();
      EXPECT_FALSE(first.isSet());
      app.send(piece);
      sent += piece;
    }
    if (behind.empty()) {
      passThrough();
      EXPECT_FALSE(first.isSet());
      app.finishSending();
    }
    EXPECT_TRUE(first.get().text() == sent) << first.get().text().size();
    if (isPatient) {
      EXPECT_GE(std::chrono::steady_clock::now() - begin, 300ms);
    }
    if (!behind.empty()) {
      // What comes while nobody reads waits for the next read.
      app.send(behind);
      passThrough();
      EXPECT_TRUE(read(*flow).get().text() == behind);
      app.finishSending();
    }
    const Read end = read(*flow).get();
    EXPECT_TRUE(end.data && end.data->isEmpty() && !end.error);
    close(*flow);
  }
}

TEST_F(TCPFlowTest, ShowsTheApplicationHowItWasClosed) {
  // What is done: o open, r and w close a side, R and W with an error, d drop, x open and fail.
  const std::pair<std::string_view, int> cases[] = {
      {"orw", 0},          {"owr", 0},         {"ow", 0},           {"owWr", 0},
      {"oRW", ECONNRESET}, {"oW", ECONNRESET}, {"orW", ECONNRESET}, {"rwx", ECONNRESET},
      {"WRx", ECONNRESET}, {"d", ECONNRESET},  {"od", ECONNRESET},  {"ord", ECONNRESET},
      {"owrd", 0}};
  for (const auto& [acts, error] : cases) {
    SCOPED_TRACE(acts);
    TCPFlow pair = makeTCPFlow(loop());
    for (const char act : acts) {
      if (act == 'o' || act == 'x') {
        EXPECT_EQ(codeOf(open(*pair.flow).get()) == 0, act == 'o');
      } else if (act == 'r' || act == 'R') {
        pair.flow->closeReadWithError(act == 'R' ? Error(failure) : Error());
      } else if (act == 'w' || act == 'W') {
        pair.flow->closeWriteWithError(act == 'W' ? Error(failure) : Error());
      } else {
        pair.flow = nullptr;
      }
    }
    EXPECT_EQ(pair.app.receiveError(), error);
  }
  // Closed and let go by its own read's completion.
  TCPFlow pair = openFlow();
  pair.flow->readData([flow = pair.flow](const auto& /*data*/, const Error& /*error*/) mutable {
    close(*flow);
    flow = nullptr;
  });
  pair.flow = nullptr;
  pair.app.send("x");
  EXPECT_EQ(pair.app.receiveError(), 0);
}

TEST_F(TCPFlowTest, ClosesOneDirectionAndWhatIsPendingThere) {
  const TCPFlow writing = openFlow();
  const auto pending = read(*writing.flow);
  writing.flow->closeReadWithError(std::nullopt);
  EXPECT_FALSE(pending.get().data);
  EXPECT_EQ(codeOf(write(*writing.flow, "still").get()), 0);
  EXPECT_EQ(writing.app.receive(5), "still");

  const TCPFlow reading = openFlow();
  reading.flow->closeWriteWithError(std::nullopt);
  EXPECT_EQ(reading.app.receive(1), "");
  reading.app.send("still");
  EXPECT_EQ(read(*reading.flow).get().text(), "still");
}

TEST_F(TCPFlowTest, EndsInTheMiddleOfAFirstFlight) {
  for (const bool isReset : {false, true}) {
    TCPFlow pair = openFlow();
    const auto pending = read(*pair.flow);
    pair.app.send("\x16\x03");
    passThrough();
    isReset ? pair.app.reset() : close(*pair.flow, failure);
    EXPECT_EQ(pending.get().text(), isReset ? "\x16\x03" : "");
    EXPECT_EQ(pending.get().error, isReset ? Error() : Error(failure));
  }
  TCPFlow unopened = makeTCPFlow(loop());
  unopened.app.reset();
  static_cast<void>(open(*unopened.flow).get());
  EXPECT_NE(codeOf(read(*unopened.flow).get().error), 0);
}

class UDPFlowTest : public LoopTest {
 protected:
  [[nodiscard]] UDPFlow openFlow() const {
    UDPFlow pair = makeUDPFlow(loop());
    EXPECT_EQ(codeOf(open(*pair.flow).get()), 0);
    return pair;
  }
  /// Reads until so many datagrams have come.
  static std::vector<std::string> readDatagrams(const UDPFlow& pair, std::size_t count) {
    std::vector<std::string> all;
    while (all.size() < count) {
      const ReadDatagrams more = read(*pair.flow).get();
      EXPECT_EQ(more.endpoints.size(), more.datagrams.value().size());
      for (const auto& endpoint : more.endpoints)
        EXPECT_EQ(endpoint.description(), "203.0.113.1:53");
      all.insert(all.end(), more.datagrams->begin(), more.datagrams->end());
    }
    return all;
  }
};

TEST_F(UDPFlowTest, CarriesTheLongestDatagramsAndEmptyOnesToTheApplication) {
  const UDPFlow pair = openFlow();
  const std::vector<std::string> texts = {pattern(60'000), pattern(65'507), pattern(1)};
  for (const std::string& text : texts) pair.app.send(text);
  EXPECT_TRUE(readDatagrams(pair, 3) == texts);
  EXPECT_EQ(codeOf(write(*pair.flow, texts).get()), 0);
  for (const std::string& text : texts) EXPECT_TRUE(pair.app.receiveOnce() == text);
  EXPECT_EQ(codeOf(write(*pair.flow, {"", "after"}).get()), 0);
  EXPECT_EQ(pair.app.receiveOnce(), "");
  EXPECT_EQ(pair.app.receiveOnce(), "after");
}

TEST_F(UDPFlowTest, EndsInEveryWay) {
  for (const Error& error : {Error(), Error(failure)}) {
    const UDPFlow pair = openFlow();
    const auto pending = read(*pair.flow);
    EXPECT_EQ(codeOf(write(*pair.flow, {"last"}).get()), 0);
    close(*pair.flow, error);
    close(*pair.flow, failure);
    EXPECT_EQ(pair.app.receiveOnce(), "last");
    EXPECT_FALSE(pending.get().datagrams);
    EXPECT_EQ(pending.get().error, error);
    EXPECT_FALSE(read(*pair.flow).get().datagrams);
    EXPECT_NE(codeOf(write(*pair.flow, {"late"}).get()), 0);
  }
  const UDPFlow refused = makeUDPFlow(loop());
  close(*refused.flow, failure);
  refused.app.send("anybody?");
  EXPECT_EQ(refused.app.receiveError(), ECONNREFUSED);

  // Ended behind what has arrived, some of it by another socket.
  const UDPFlow ended = openFlow();
  loop().post([&] { ended.flow->inject(Data::copying("injected")); });
  passThrough();
  ended.app.send("sent");
  ended.flow->end();
  EXPECT_EQ(readDatagrams(ended, 2), (std::vector<std::string>{"injected", "sent"}));
  const ReadDatagrams end = read(*ended.flow).get();
  EXPECT_TRUE(!end.datagrams && !end.error);
}

}  // namespace
}  // namespace tandor::test
