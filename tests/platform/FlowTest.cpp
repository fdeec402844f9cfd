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

std::string record(std::size_t length) {
  return std::string{'\x16', '\x03', '\x01', static_cast<char>(length >> 8),
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
      {{hello}},
      {{hello + "\x14\x03"}},
      {{hello.substr(0, 100), hello.substr(100)}},
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
    EXPECT_EQ(pair.app.receiveAll().error, error);
  }
  // Closed and let go by its own read's completion.
  TCPFlow pair = openFlow();
  pair.flow->readData([flow = pair.flow](const auto& /*data*/, const Error& /*error*/) mutable {
    close(*flow);
    flow = nullptr;
  });
  pair.flow = nullptr;
  pair.app.send("x");
  EXPECT_EQ(pair.app.receiveAll().error, 0);
}

TEST_F(TCPFlowTest, WaitsNoLongerForAnApplicationThatHasReset) {
  for (const bool hasFinished : {false, true}) {
    auto [flow, app] = makeTCPFlow(loop(), 8192);
    EXPECT_EQ(codeOf(open(*flow).get()), 0);
    const auto held = write(*flow, pattern(mebibyte));  // far more than it takes
    if (hasFinished) app.finishSending();
    passThrough();
    flow->closeReadWithError(failure);
    flow->closeWriteWithError(failure);
    flow = nullptr;
    passThrough();
    app.close();  // with bytes that it has not read; then no descriptor is left
  }
}

}  // namespace
}  // namespace tandor::test
