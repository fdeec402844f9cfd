#include <cerrno>
#include <thread>

#include "platform/Objects.h"
#include "platform/linux/StreamSocket.h"

namespace tandor::test {
namespace {

using namespace std::chrono_literals;

enum class Kind : std::uint8_t { flow, pinnedConnection, freeConnection };

/// A flow that is open, or a connection that is ready.
struct Stream {
  std::function<Awaited<Error>(std::string_view)> write;
  std::function<Awaited<Read>()> read;
  std::function<void()> end;
  Peer peer;

  void letGo() {
    write = nullptr;
    read = nullptr;
    end = nullptr;
  }
};

/// What the application's side and the way out have in common.
class StreamTest : public LoopTest, public testing::WithParamInterface<Kind> {
 protected:
  [[nodiscard]] static bool isFlow() { return GetParam() == Kind::flow; }

  /// The kernel buffers no more than `buffer` bytes a direction of a flow if that is given.
  [[nodiscard]] Stream make(int buffer = 0) {
    if (isFlow()) {
      auto [flow, app] = makeTCPFlow(loop(), buffer);
      EXPECT_EQ(codeOf(open(*flow).get()), 0);
      return {[flow](std::string_view text) { return tandor::test::write(*flow, text); },
              [flow] { return tandor::test::read(*flow); }, [flow] { close(*flow); },
              std::move(app)};
    }
    const Listener listener;
    const Outbound connection =
        outbound(GetParam() == Kind::pinnedConnection, "127.0.0.1", listener.port());
    Peer peer = listener.accept();
    EXPECT_TRUE(connection.reaches("ready"));
    return {[connection](std::string_view text) { return connection.send(text); },
            [connection] { return connection.receive(); }, [connection] { connection.cancel(); },
            std::move(peer)};
  }
  /// Writes `most` bytes of the pattern, or fewer if one write is held back; then that is in held_.
  [[nodiscard]] std::size_t fill(const Stream& stream, std::size_t most = 64 * mebibyte) {
    constexpr std::size_t piece = 16'384;
    for (std::size_t accepted = 0; accepted < most; accepted += piece) {
      held_ = stream.write(pattern(piece, accepted));
      settle();
      if (!held_.isSet()) return accepted;
      EXPECT_EQ(codeOf(held_.get()), 0);
      EXPECT_EQ(codeOf(stream.write("").get()), 0);  // nothing to send, behind what may be unsent
    }
    return most;
  }

  Awaited<Error> held_;
};

INSTANTIATE_TEST_SUITE_P(Kinds, StreamTest,
                         testing::Values(Kind::flow, Kind::pinnedConnection, Kind::freeConnection));

TEST_P(StreamTest, HoldsBackWritesBeyondItsBound) {
  const Stream stream = make(8192);
  const std::size_t accepted = fill(stream);
  ASSERT_FALSE(held_.isSet());
  EXPECT_GE(accepted, StreamSocket::outputBound);
  // What the kernel itself holds at both ends of a flow counts several times its nominal size.
  if (isFlow()) {
    EXPECT_LE(accepted, StreamSocket::outputBound + 65'536);
  }
  EXPECT_TRUE(stream.peer.receive(accepted) == pattern(accepted));
  EXPECT_EQ(codeOf(held_.get()), 0);
  stream.end();
  EXPECT_EQ(stream.peer.receiveAll().error, 0);
}

TEST_P(StreamTest, EndDeliversWhatWasAccepted) {
  constexpr std::size_t count = 8 * mebibyte;
  for (const bool doesPeerSendFirst : {false, true}) {
    Stream stream = make(doesPeerSendFirst ? 65'536 : 0);
    const Awaited<Transcript> transcript;
    // Reads slowly; or not before it has sent as much itself, which nobody reads.
    const std::jthread peer([&] {
      if (doesPeerSendFirst) stream.peer.send(pattern(count));
      transcript.set(stream.peer.receiveAll(doesPeerSendFirst ? 0ms : 1ms));
      stream.peer.close();
    });
    const std::size_t accepted = fill(stream, 2 * count);
    stream.end();
    stream.letGo();
    // What was held back was not accepted and yet is not lost.
    const auto [text, error] = transcript.get();
    EXPECT_EQ(error, 0);
    EXPECT_GE(text.size(), accepted);
    EXPECT_TRUE(text == pattern(text.size()));
  }
}

TEST_P(StreamTest, EndAnswersWhatIsPending) {
  Stream stream = make();
  const auto pending = stream.read();
  static_cast<void>(fill(stream));
  stream.end();
  EXPECT_EQ(codeOf(held_.get()), ECANCELED);
  EXPECT_EQ(codeOf(pending.get().error), isFlow() ? 0 : ECANCELED);
  EXPECT_FALSE(pending.get().data);
  EXPECT_FALSE(stream.read().get().data);
  EXPECT_NE(codeOf(stream.write("late").get()), 0);
  stream.peer.close();
}

TEST_P(StreamTest, GoesOnWritingWhenThePeerHasEnded) {
  const Stream stream = make();
  stream.peer.send("req!", MSG_OOB);  // no bytes are lost or waited for, urgent or not
  stream.peer.send("uest");
  stream.peer.finishSending();
  std::string text;
  for (int time = 0; time < 8 && text.size() < 8; ++time) text += stream.read().get().text();
  EXPECT_EQ(text, "req!uest");
  for (int time = 0; time < 2; ++time) {
    const Read end = stream.read().get();
    EXPECT_FALSE(end.error);
    EXPECT_EQ(end.text(), "");
    EXPECT_EQ(end.data.has_value(), isFlow());
    EXPECT_EQ(end.isComplete, !isFlow());
  }
  EXPECT_EQ(codeOf(stream.write("answer").get()), 0);
  EXPECT_EQ(stream.peer.receive(6), "answer");
  stream.end();
}

}  // namespace
}  // namespace tandor::test
