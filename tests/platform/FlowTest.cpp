#include <cerrno>
#include <fstream>
#include <unistd.h>

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
  enum class Then : std::uint8_t { whole, patience, closed };
  struct Case {
    std::string what;
    std::vector<std::string> pieces;
    Then then = Then::whole;
    std::string behind{};
  };
  std::vector<std::string> bytes;
  for (const char byte : record(30)) bytes.emplace_back(1, byte);
  const std::vector<Case> cases = {
      {"no record", {"G"}},
      {"another record type", {record(700, '\x17').substr(0, 3)}},
      {"in one piece", {hello}},
      {"with bytes of the next", {hello + "\x14\x03"}},
      {"in two pieces", {hello.substr(0, 100), hello.substr(100)}},
      {"the second with more", {hello.substr(0, 100), hello.substr(100) + "more"}},
      {"byte by byte", bytes},
      {"split in its header", {hello.substr(0, 3), hello.substr(3, 1), hello.substr(4)}},
      {"empty record", {"\x16\x03", std::string("\x01\0\0", 3)}},
      {"longest record", {big.substr(0, 10'000), big.substr(10'000)}},
      {"longer than any record", {tooLong.substr(0, 10'000), tooLong.substr(10'000)}},
      {"header only", {hello.substr(0, 5)}, Then::patience, hello.substr(5)},
      {"one byte only", {hello.substr(0, 1)}, Then::patience, hello.substr(1)},
      {"ended in between", {hello.substr(0, 600)}, Then::closed},
  };
  for (const Case& item : cases) {
    SCOPED_TRACE(item.what);
    auto [flow, app] = openFlow();
    const auto begin = std::chrono::steady_clock::now();
    const auto first = read(*flow);
    std::string sent;
    for (const std::string& piece : item.pieces) {
      passThrough();
      EXPECT_FALSE(first.isSet());
      app.send(piece);
      sent += piece;
    }
    if (item.then == Then::closed) {
      passThrough();
      EXPECT_FALSE(first.isSet());
      app.finishSending();
    }
    EXPECT_TRUE(first.get().text() == sent) << first.get().text().size();
    if (item.then == Then::patience) {
      EXPECT_GE(std::chrono::steady_clock::now() - begin, 300ms);
      // What comes while nobody reads waits for the next read.
      app.send(item.behind);
      passThrough();
      EXPECT_TRUE(read(*flow).get().text() == item.behind);
    } else if (item.then == Then::whole) {
      passThrough();
      const auto second = read(*flow);
      app.send("\x16");  // only the first read waits for a record
      EXPECT_EQ(second.get().text(), "\x16");
    }
    app.finishSending();
    const Read end = read(*flow).get();
    EXPECT_TRUE(end.data && end.data->isEmpty() && !end.error);
    close(*flow);
  }
}

TEST_F(TCPFlowTest, ShowsTheApplicationHowItWasClosed) {
  using Act = std::function<void(TCPFlow&)>;
  const auto readSide = [](const Error& error) {
    return [error](const TCPFlow& pair) { pair.flow->closeReadWithError(error); };
  };
  const auto writeSide = [](const Error& error) {
    return [error](const TCPFlow& pair) { pair.flow->closeWriteWithError(error); };
  };
  const Act opened = [](const TCPFlow& pair) { EXPECT_EQ(codeOf(open(*pair.flow).get()), 0); };
  const Act drop = [](TCPFlow& pair) { pair.flow = nullptr; };
  const Act late = [](const TCPFlow& pair) { EXPECT_NE(codeOf(open(*pair.flow).get()), 0); };
  const Error none;
  struct Case {
    std::string what;
    std::vector<Act> acts;
    int error;  // what the application's read meets
  };
  const std::vector<Case> cases = {
      {"both sides", {opened, readSide(none), writeSide(none)}, 0},
      {"the other way round", {opened, writeSide(none), readSide(none)}, 0},
      {"only the writing side", {opened, writeSide(none)}, 0},
      {"twice", {opened, writeSide(none), writeSide(failure), readSide(none)}, 0},
      {"with an error", {opened, readSide(failure), writeSide(failure)}, ECONNRESET},
      {"error on the writing side first", {opened, writeSide(failure)}, ECONNRESET},
      {"error on the second side", {opened, readSide(none), writeSide(failure)}, ECONNRESET},
      {"refused", {readSide(none), writeSide(none), late}, ECONNRESET},
      {"refused with an error", {writeSide(failure), readSide(failure), late}, ECONNRESET},
      {"dropped unopened", {drop}, ECONNRESET},
      {"dropped", {opened, drop}, ECONNRESET},
      {"dropped, half closed", {opened, readSide(none), drop}, ECONNRESET},
      {"dropped, closed", {opened, writeSide(none), readSide(none), drop}, 0},
  };
  for (const Case& item : cases) {
    SCOPED_TRACE(item.what);
    TCPFlow pair = makeTCPFlow(loop());
    for (const Act& act : item.acts) act(pair);
    EXPECT_EQ(pair.app.receiveError(), item.error);
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

TEST_F(TCPFlowTest, ClosesADirectionAndWhatIsPendingThere) {
  {
    SCOPED_TRACE("both, with an error and a first flight that never becomes whole");
    const TCPFlow pair = openFlow();
    const auto pending = read(*pair.flow);
    pair.app.send("\x16");
    passThrough();
    close(*pair.flow, failure);
    EXPECT_FALSE(pending.get().data);
    EXPECT_EQ(pending.get().error, failure);
  }
  {
    SCOPED_TRACE("reading");
    const TCPFlow pair = openFlow();
    const auto pending = read(*pair.flow);
    pair.flow->closeReadWithError(std::nullopt);
    EXPECT_FALSE(pending.get().data);
    EXPECT_EQ(codeOf(write(*pair.flow, "still").get()), 0);
    EXPECT_EQ(pair.app.receive(5), "still");
  }
  {
    SCOPED_TRACE("writing");
    const TCPFlow pair = openFlow();
    pair.flow->closeWriteWithError(std::nullopt);
    EXPECT_EQ(pair.app.receive(1), "");
    pair.app.send("still");
    EXPECT_EQ(read(*pair.flow).get().text(), "still");
  }
}

TEST_F(TCPFlowTest, SurvivesApplicationsThatResetEarly) {
  TCPFlow pair = openFlow();
  const auto pending = read(*pair.flow);
  pair.app.send("\x16\x03");  // the beginning of a first flight
  passThrough();
  pair.app.reset();
  EXPECT_EQ(pending.get().text(), "\x16\x03");
  EXPECT_EQ(codeOf(read(*pair.flow).get().error), ECONNRESET);

  TCPFlow unopened = makeTCPFlow(loop());
  unopened.app.reset();
  static_cast<void>(open(*unopened.flow).get());
  EXPECT_NE(codeOf(read(*unopened.flow).get().error), 0);
}

std::size_t residentBytes() {
  std::ifstream file("/proc/self/statm");
  std::size_t total = 0;
  std::size_t resident = 0;
  file >> total >> resident;
  return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

TEST_F(TCPFlowTest, DropsItsBuffersWhileItIsIdle) {
  // One after the other sends and answers, and stays open.
  constexpr std::size_t count = 800;
  const std::string text(3000, 'x');
  std::vector<TCPFlow> pairs;
  const auto add = [&] {
    const TCPFlow& pair = pairs.emplace_back(openFlow());
    pair.app.send(text);
    EXPECT_EQ(read(*pair.flow).get().text().size(), text.size());
    EXPECT_EQ(codeOf(write(*pair.flow, text).get()), 0);
    EXPECT_EQ(pair.app.receive(text.size()).size(), text.size());
    static_cast<void>(read(*pair.flow));
  };
  for (int warmUp = 0; warmUp < 20; ++warmUp) add();
  const std::size_t before = residentBytes();
  while (pairs.size() < count) add();
  EXPECT_LT(residentBytes(), before + count * (isSanitized ? 50'000 : 2'048));
  for (const TCPFlow& pair : pairs) close(*pair.flow);
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

TEST_F(UDPFlowTest, CarriesDatagramsWholeAndInOrder) {
  const UDPFlow pair = openFlow();
  std::vector<std::string> burst = {pattern(1), pattern(2049)};
  for (std::size_t number = 0; number < 80; ++number) burst.push_back(pattern(1200, number));
  for (const std::string& text : burst) pair.app.send(text);
  EXPECT_TRUE(readDatagrams(pair, burst.size()) == burst);
  EXPECT_EQ(codeOf(write(*pair.flow, burst).get()), 0);
  for (const std::string& text : burst) ASSERT_TRUE(pair.app.receiveOnce() == text);
  const std::vector<std::string> longest = {pattern(60'000), pattern(65'507)};
  for (const std::string& text : longest) pair.app.send(text);
  EXPECT_TRUE(readDatagrams(pair, 2) == longest);
  EXPECT_EQ(codeOf(write(*pair.flow, longest).get()), 0);
  for (const std::string& text : longest) EXPECT_TRUE(pair.app.receiveOnce() == text);
  // Empty ones reach the application but never a reader.
  EXPECT_EQ(codeOf(write(*pair.flow, {"", "after"}).get()), 0);
  EXPECT_EQ(pair.app.receiveOnce(), "");
  EXPECT_EQ(pair.app.receiveOnce(), "after");
  const auto pending = read(*pair.flow);
  pair.app.send("");
  passThrough();
  EXPECT_FALSE(pending.isSet());
  pair.app.send("full");
  EXPECT_EQ(pending.get().datagrams.value(), (std::vector<std::string>{"full"}));
  close(*pair.flow);
}

TEST_F(UDPFlowTest, EndsInEveryWay) {
  {
    SCOPED_TRACE("refused");
    const UDPFlow pair = makeUDPFlow(loop());
    close(*pair.flow, failure);
    EXPECT_NE(codeOf(open(*pair.flow).get()), 0);
    pair.app.send("anybody?");
    EXPECT_EQ(pair.app.receiveError(), ECONNREFUSED);
  }
  for (const Error& error : {Error(), Error(failure)}) {
    SCOPED_TRACE("closed");
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
  {
    SCOPED_TRACE("the application is gone");
    UDPFlow pair = openFlow();
    pair.app.close();
    const auto pending = read(*pair.flow);
    EXPECT_EQ(codeOf(write(*pair.flow, {"anybody?"}).get()), 0);
    EXPECT_EQ(codeOf(pending.get().error), ECONNREFUSED);
  }
  {
    SCOPED_TRACE("ended behind what has arrived, some of it by another socket");
    const UDPFlow pair = openFlow();
    loop().post([&] { pair.flow->inject(Data::copying("injected")); });
    passThrough();
    pair.app.send("sent");
    pair.flow->end();
    EXPECT_EQ(readDatagrams(pair, 2), (std::vector<std::string>{"injected", "sent"}));
    const ReadDatagrams end = read(*pair.flow).get();
    EXPECT_TRUE(!end.datagrams && !end.error);
  }
}

}  // namespace
}  // namespace tandor::test
