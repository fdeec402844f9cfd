#include <cerrno>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>

#include "platform/Objects.h"
#include "platform/linux/StreamSocket.h"

namespace tandor::test {
namespace {

using namespace std::chrono_literals;
using States = std::vector<std::string>;

constexpr std::size_t mebibyte = std::size_t{1} << 20;

NWEndpoint endpoint(const std::string& host, std::uint16_t port) {
  return NWEndpoint::hostPort(NWEndpoint::Host::name(host), NWEndpoint::Port(port));
}

std::string posixState(const std::string& name, int error) {
  return name + " " + std::string(NSError::posixDomain) + " " + std::to_string(error);
}

/// Every test runs with a pinned queue and with a free one.
class ConnectionTest : public LoopTest, public testing::WithParamInterface<bool> {
 protected:
  [[nodiscard]] std::shared_ptr<DispatchQueue> queue() {
    return queues_.emplace_back(GetParam() ? pinnedQueue() : DispatchQueue::serial("free"));
  }
  /// A connection that is ready, and its peer.
  struct Pair {
    Outbound outbound;
    Peer peer;
  };
  [[nodiscard]] Pair connect() {
    const Listener listener;
    Outbound connection = outbound(endpointOf(listener.address()));
    connection.start(queue());
    Peer peer = listener.accept();
    EXPECT_TRUE(connection.reaches("ready"));
    return {std::move(connection), std::move(peer)};
  }
  void settle() const override {
    LoopTest::settle();
    for (const auto& queue : queues_) queue->sync([] {});
  }
  /// Sends until so many bytes are accepted, or a send is held back; then that one is in `held_`.
  [[nodiscard]] std::size_t sendPattern(const Outbound& connection, std::size_t count) {
    return writePattern(
        count, [&](const std::string& text) { return connection.send(text); }, [this] { settle(); },
        held_);
  }
  /// Sends so many bytes, each piece as soon as the one before is accepted.
  static void sendWholePattern(const Outbound& connection, std::size_t count) {
    constexpr std::size_t piece = std::size_t{48} * 1024;
    for (std::size_t offset = 0; offset < count; offset += piece) {
      const auto sent = connection.send(pattern(std::min(piece, count - offset), offset));
      ASSERT_EQ(codeOf(sent.get()), 0);
    }
  }

  std::vector<std::shared_ptr<DispatchQueue>> queues_;
  std::optional<Awaited<Error>> held_;
};

INSTANTIATE_TEST_SUITE_P(Queue, ConnectionTest, testing::Bool(),
                         [](const auto& kind) { return kind.param ? "Pinned" : "Free"; });

TEST_P(ConnectionTest, ReportsWhatBecomesOfTheWay) {
  const Listener listener("127.0.0.1");
  const Listener listener6("::1");
  const std::uint16_t unused = [] { return Listener("127.0.0.1").port(); }();
  const auto tcp = NWParameters::tcp();
  auto through = [](const char* interface) {
    auto parameters = NWParameters::tcp();
    parameters.requiredInterface = NWInterface{.name = interface};
    return parameters;
  };
  auto udpThrough = through("absent0");
  udpThrough.transport = NWParameters::Transport::udp;
  const std::string refused = posixState("waiting", ECONNREFUSED);
  const std::string unreachable = posixState("waiting", ENETUNREACH);
  const std::string noDevice = posixState("failed", ENODEV);
  struct Case {
    std::string what;
    NWEndpoint endpoint;
    NWParameters parameters;
    std::string last;
  };
  const std::vector<Case> cases = {
      {"listening", endpoint("127.0.0.1", listener.port()), tcp, "ready"},
      {"listening, IPv6", endpoint("::1", listener6.port()), tcp, "ready"},
      {"name, only IPv4 listens", endpoint("localhost", listener.port()), tcp, "ready"},
      {"name, only IPv6 listens", endpoint("localhost", listener6.port()), tcp, "ready"},
      {"only the last address listens", endpoint("several.test", listener.port()), tcp, "ready"},
      {"own interface", endpoint("127.0.0.1", listener.port()), through("lo"), "ready"},
      {"refused", endpoint("127.0.0.1", unused), tcp, refused},
      {"refused by all", endpoint("several.test", unused), tcp, refused},
      {"no way", endpoint("192.0.2.1", 80), tcp, unreachable},
      {"interface is down", endpoint("127.0.0.1", listener.port()), through("down0"), unreachable},
      {"no such interface", endpoint("127.0.0.1", listener.port()), through("absent0"), noDevice},
      {"no such name", endpoint("nowhere.invalid", 80), tcp, "waiting DNSErrorDomain"},
      {"empty name", endpoint("", 80), tcp, "waiting"},
      {"datagrams", endpoint("localhost", unused), NWParameters::udp(), "ready"},
      {"datagrams, no way", endpoint("192.0.2.1", 53), NWParameters::udp(), unreachable},
      {"datagrams, no such interface", endpoint("127.0.0.1", 53), udpThrough, noDevice},
  };
  for (const Case& item : cases) {
    SCOPED_TRACE(item.what);
    const Outbound connection = outbound(item.endpoint, item.parameters);
    connection.start(queue());
    EXPECT_TRUE(connection.reaches(item.last));
    const States states = connection.states();
    EXPECT_EQ(states.size(), 2U);
    EXPECT_EQ(states.front(), "preparing");
    connection.cancel();
    EXPECT_TRUE(connection.reaches("cancelled"));
    connection.cancel();
    settle();
    EXPECT_EQ(connection.states().size(), 3U);
  }
}

TEST_P(ConnectionTest, ReceivesBetweenMinimumAndMaximum) {
  auto [connection, peer] = connect();
  const auto atLeast = connection.receive(6, 8);
  peer.send("abc");
  settle();
  EXPECT_FALSE(atLeast.isSet());
  peer.send("defghijkl");
  EXPECT_EQ(atLeast.get().text(), "abcdefgh");
  EXPECT_EQ(connection.receive(1, 2).get().text(), "ij");
  EXPECT_EQ(connection.receive(2, 100).get().text(), "kl");

  // The end of the stream comes with the last bytes when fewer than the minimum are left.
  const auto last = connection.receive(10, 20);
  peer.send("mn");
  peer.finishSending();
  EXPECT_EQ(last.get().text(), "mn");
  EXPECT_TRUE(last.get().isComplete);
  for (int time = 0; time < 2; ++time) {
    const Received end = connection.receive().get();
    EXPECT_TRUE(!end.data && end.isComplete && !end.error);
  }
  EXPECT_EQ(codeOf(connection.send("still open").get()), 0);
  EXPECT_EQ(peer.receive(10), "still open");
  connection.cancel();
}

TEST_P(ConnectionTest, CarriesBothWaysAtOnceInSlices) {
  constexpr std::size_t count = (isSanitized ? 3 : 12) * mebibyte;
  auto [connection, peer] = connect();
  const std::jthread answering([&] { peer.sendPattern(count); });
  std::jthread listening([&] { EXPECT_EQ(peer.receivePattern(count), count); });
  const std::jthread sending([&] { sendWholePattern(connection, count); });
  std::string text;
  while (text.size() < count) {
    const Received received = connection.receive(1, 2048).get();
    ASSERT_LE(received.data.value().count(), 2048U);
    text += received.text();
  }
  EXPECT_TRUE(text == pattern(count));
  listening.join();
  connection.cancel();
}

TEST_P(ConnectionTest, CancelDeliversWhatWasAccepted) {
  constexpr std::size_t count = (isSanitized ? 2 : 8) * mebibyte;
  for (const bool doesPeerSendFirst : {false, true}) {
    auto [connection, peer] = connect();
    // Read at once or slowly; or not before the peer has sent as much itself, which nobody reads.
    const Awaited<Transcript> transcript;
    const std::jthread slow([&] {
      if (doesPeerSendFirst) peer.sendPattern(count);
      transcript.set(peer.receiveAll(doesPeerSendFirst ? 0ms : 2ms));
      peer.close();
    });
    if (doesPeerSendFirst) {
      // What the kernel does not take is held back; it was not accepted and yet is not lost.
      const std::size_t accepted = sendPattern(connection, 2 * count);
      connection.cancel();
      const std::string text = transcript.get().text;
      EXPECT_GE(text.size(), accepted);
      EXPECT_TRUE(text == pattern(text.size()));
    } else {
      sendWholePattern(connection, count);
      connection.cancel();
      connection.drop();
      EXPECT_TRUE(transcript.get().text == pattern(count));
    }
    EXPECT_EQ(transcript.get().error, 0);
  }
}

TEST_P(ConnectionTest, HoldsBackSendsBeyondTheBound) {
  auto [connection, peer] = connect();
  // Far more than the kernel's buffers and ours together take.
  const std::size_t accepted = sendPattern(connection, 64 * mebibyte);
  ASSERT_TRUE(held_);
  EXPECT_GE(accepted, StreamSocket::outputBound);
  EXPECT_EQ(peer.receivePattern(accepted), accepted);
  EXPECT_EQ(codeOf(held_->get()), 0);
  connection.cancel();
  EXPECT_EQ(peer.receiveAll().error, 0);
}

TEST_P(ConnectionTest, CancelEndsWhatIsPending) {
  const auto expectCancelled = [](const Awaited<Error>& sent, const Awaited<Received>& received) {
    EXPECT_EQ(codeOf(sent.get()), ECANCELED);
    EXPECT_EQ(codeOf(received.get().error), ECANCELED);
    EXPECT_FALSE(received.get().data);
  };
  {
    SCOPED_TRACE("while receiving and sending");
    auto [connection, peer] = connect();
    const auto received = connection.receive();
    static_cast<void>(sendPattern(connection, 64 * mebibyte));
    connection.cancel();
    expectCancelled(held_.value(), received);
    expectCancelled(connection.send("late"), connection.receive());
    settle();
    EXPECT_EQ(connection.states(), (States{"preparing", "ready", "cancelled"}));
  }
  {
    SCOPED_TRACE("while connecting");
    const Outbound connection = outbound(endpoint("203.0.113.200", 80));
    connection.start(queue());
    EXPECT_EQ(codeOf(connection.receive().get().error), ENOTCONN);
    connection.cancel();
    expectCancelled(connection.send("late"), connection.receive());
    settle();
    EXPECT_EQ(connection.states(), (States{"preparing", "cancelled"}));
  }
  {
    SCOPED_TRACE("while resolving");
    const Outbound connection = outbound(endpoint("several.test", 80));
    connection.start(queue());
    connection.cancel();
    expectCancelled(connection.send("late"), connection.receive());
    const Awaited<bool> resolved;
    resolver().resolve("several.test", [&](const auto&) { resolved.set(true); });
    static_cast<void>(resolved.get());
    passThrough(loop());
    EXPECT_EQ(connection.states().back(), "cancelled");
  }
  {
    SCOPED_TRACE("before the start");
    const Listener listener;
    const Outbound connection = outbound(endpointOf(listener.address()));
    connection.cancel();
    connection.start(queue());
    expectCancelled(connection.send("late"), connection.receive());
  }
}

TEST_P(ConnectionTest, TellsNobodyAfterTheHandlerWasCleared) {
  const Listener listener;
  for (const bool isReady : {false, true}) {
    const Outbound connection = outbound(endpointOf(listener.address()));
    connection.start(queue());
    EXPECT_TRUE(eventually([&] { return connection.states().size() > (isReady ? 1 : 0); }));
    connection.connection().setStateUpdateHandler(nullptr);
    const std::size_t told = connection.states().size();
    static_cast<void>(listener.accept());
    connection.cancel();
    settle();
    EXPECT_EQ(connection.states().size(), told);
  }
  // A handler may put another one in its place.
  const Outbound connection = outbound(endpointOf(listener.address()));
  const Awaited<std::string> second;
  connection.connection().setStateUpdateHandler([&](const NWConnection::State& first) {
    EXPECT_EQ(first.description(), "preparing");
    connection.connection().setStateUpdateHandler([&](const NWConnection::State& next) {
      connection.connection().setStateUpdateHandler(nullptr);
      second.set(next.description());
    });
  });
  connection.start(queue());
  EXPECT_EQ(second.get(), "ready");
  connection.cancel();
  static_cast<void>(listener.accept());
}

TEST_P(ConnectionTest, FailsWhatThePeerResets) {
  {
    SCOPED_TRACE("while receiving");
    auto [connection, peer] = connect();
    const auto received = connection.receive(5, 10);
    peer.send("abc");
    passThrough(loop());
    peer.reset();
    EXPECT_EQ(received.get().text(), "abc");  // what had come is not lost
    EXPECT_FALSE(received.get().isComplete);
    EXPECT_EQ(codeOf(connection.receive().get().error), ECONNRESET);
    EXPECT_TRUE(eventually([&] { return codeOf(connection.send("x").get()) == EPIPE; }));
    connection.cancel();
  }
  {
    SCOPED_TRACE("while a send is held back");
    auto [connection, peer] = connect();
    static_cast<void>(sendPattern(connection, 64 * mebibyte));
    peer.reset();
    EXPECT_EQ(codeOf(held_.value().get()), ECONNRESET);
    EXPECT_NE(codeOf(connection.send("x").get()), 0);
    connection.cancel();
  }
  {
    SCOPED_TRACE("while bytes are left after a cancel");
    auto [connection, peer] = connect();
    static_cast<void>(sendPattern(connection, 64 * mebibyte));
    connection.cancel();
    connection.drop();
    passThrough(loop());
    peer.reset();
  }
  {
    SCOPED_TRACE("while it is idle");
    auto [connection, peer] = connect();
    peer.reset();
    passThrough(loop());
    EXPECT_EQ(codeOf(connection.receive().get().error), ECONNRESET);
    connection.cancel();
  }
}

TEST_P(ConnectionTest, LosesNothingThatIsSentBeforeItIsReadyOrAfterItFailed) {
  const Listener listener;
  const Outbound connection = outbound(endpointOf(listener.address()));
  connection.start(queue());
  const auto early = connection.send("early");  // accepted and delivered, or an error
  const auto received = connection.receive();
  const Peer peer = listener.accept();
  EXPECT_TRUE(connection.reaches("ready"));
  const bool isAccepted = !early.get();
  EXPECT_EQ(codeOf(connection.send("late").get()), 0);
  EXPECT_EQ(peer.receive(isAccepted ? 9 : 4), isAccepted ? "earlylate" : "late");
  peer.send("answer");
  EXPECT_TRUE(received.get().error || received.get().text() == "answer");
  connection.cancel();

  const Outbound failed = outbound(endpoint("192.0.2.1", 80));
  failed.start(queue());
  EXPECT_TRUE(failed.reaches("waiting"));
  EXPECT_NE(codeOf(failed.send("lost").get()), 0);
  failed.cancel();
}

TEST_P(ConnectionTest, ReadsOnBehindUrgentBytes) {
  auto [connection, peer] = connect();
  const auto first = connection.receive();
  ASSERT_EQ(::send(peer.descriptor(), "abc!", 4, MSG_OOB), 4);
  peer.send("def");
  std::string text = first.get().text();
  while (text.size() < 7) text += connection.receive().get().text();
  EXPECT_EQ(text, "abc!def");
  connection.cancel();
}

class DatagramConnectionTest : public ConnectionTest {
 protected:
  /// A connection that is ready, and its peer, who has received a first datagram.
  [[nodiscard]] Pair connectDatagrams() {
    Peer peer = boundPeer(SOCK_DGRAM, "127.0.0.1");
    Outbound connection = outbound(endpointOf(peer.address()), NWParameters::udp());
    connection.start(queue());
    EXPECT_TRUE(connection.reaches("ready"));
    EXPECT_EQ(codeOf(connection.send("hello").get()), 0);
    EXPECT_EQ(peer.acceptDatagram(), "hello");
    return {std::move(connection), std::move(peer)};
  }
};

INSTANTIATE_TEST_SUITE_P(Queue, DatagramConnectionTest, testing::Bool(),
                         [](const auto& kind) { return kind.param ? "Pinned" : "Free"; });

TEST_P(DatagramConnectionTest, CarriesEachDatagramWhole) {
  auto [connection, peer] = connectDatagrams();
  for (const std::size_t size : {1U, 0U, 1472U, 2049U, 0U, 60'000U, 65'507U, 3U}) {
    SCOPED_TRACE(size);
    const std::string text = pattern(size, size);
    EXPECT_EQ(codeOf(connection.send(text).get()), 0);
    EXPECT_TRUE(peer.receiveOnce() == text);
    const auto received = connection.receive(1, 10);  // neither cut to the maximum nor joined
    peer.send(text);
    ASSERT_TRUE(received.get().data);
    EXPECT_TRUE(received.get().text() == text);
    EXPECT_FALSE(received.get().isComplete);
  }
  // One that no network carries is lost, as datagrams are; the next one is not.
  EXPECT_EQ(codeOf(connection.send(pattern(65'508)).get()), 0);
  EXPECT_EQ(codeOf(connection.send("next").get()), 0);
  EXPECT_EQ(peer.receiveOnce(), "next");
  connection.cancel();
}

TEST_P(DatagramConnectionTest, KeepsTheOrderOfBursts) {
  auto [connection, peer] = connectDatagrams();
  for (const std::size_t size : {3U, 1200U}) {
    constexpr std::size_t burst = 80;  // more than one batch, less than a socket's buffer
    for (std::size_t number = 0; number < burst; ++number) peer.send(pattern(size, number));
    for (std::size_t number = 0; number < burst; ++number)
      ASSERT_TRUE(connection.receive().get().text() == pattern(size, number)) << number;
    for (std::size_t number = 0; number < burst; ++number)
      ASSERT_EQ(codeOf(connection.send(pattern(size, number)).get()), 0);
    for (std::size_t number = 0; number < burst; ++number)
      ASSERT_TRUE(peer.receiveOnce() == pattern(size, number)) << number;
  }
  // What was accepted leaves before a cancel closes the socket.
  const auto received = connection.receive();
  const auto sent = connection.send("last");
  connection.cancel();
  EXPECT_EQ(peer.receiveOnce(), "last");
  static_cast<void>(sent.get());
  EXPECT_EQ(codeOf(received.get().error), ECANCELED);
}

TEST_P(DatagramConnectionTest, ReportsThatNobodyListens) {
  auto [connection, peer] = connectDatagrams();
  peer.close();
  const auto received = connection.receive();
  EXPECT_EQ(codeOf(connection.send("anybody?").get()), 0);
  EXPECT_EQ(codeOf(received.get().error), ECONNREFUSED);
  EXPECT_FALSE(received.get().isComplete);
  connection.cancel();
}

}  // namespace
}  // namespace tandor::test
