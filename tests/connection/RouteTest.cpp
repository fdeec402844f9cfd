#include <functional>

#include "connection/ConnectionFixture.h"
#include "support/Hello.h"

namespace tandor::test {
namespace {

/// Connections that start by way of the proxy.
class Route : public ConnectionFixture {
 protected:
  static inline const Data hello = clientHello("name.example");
  static inline const std::string request =
      "CONNECT name.example:443 HTTP/1.1\r\nHost: name.example:443\r\n"
      "Proxy-Connection: keep-alive\r\n\r\n";

  /// How the switch to direct mode shows.
  [[nodiscard]] static Lines switched(const std::string& reason) {
    return {"out1: handler cleared",
            "out1: cancel",
            "log: change connection to direct mode, reason: " + reason,
            "out2: tcp host.example:443",
            "out2: handler",
            "out2: start on tandor_nw_connection_queue"};
  }
  /// How the relay opens: `first` goes out before the flow is read again.
  [[nodiscard]] static Lines relay(const Data& first, const std::string& out) {
    return {out + ": send " + show(first), out + ": receive 1..2048"};
  }
};

TEST_F(Route, AWayThatDoesNotComeAboutEndsTheFlow) {
  const std::pair<ConnectionMode, std::string> modes[] = {
      {direct, "log: nw direct connection failed: broken; state: "},
      {proxied, "log: proxy failed: broken ; state: "}};
  for (const auto& [mode, line] : modes) {
    for (const State state : {State::waiting, State::failed}) {
      start(mode);
      out().enter(state, broken);
      const std::string shown = state == State::waiting ? "waiting(broken)" : "failed(broken)";
      EXPECT_EQ(happened(), Lines{line + shown} + ended("broken"));
    }
  }
}

TEST_F(Route, FailedFirstReadEndsTheFlow) {
  using Error = std::optional<NSError>;
  const std::pair<std::optional<Data>, Error> cases[] = {
      {std::nullopt, broken}, {hello, broken}, {std::nullopt, Error()}, {Data(), Error()}};
  for (const auto& [data, error] : cases) {
    startReady(proxied);
    tcpFlow_->completeRead(data, error);
    EXPECT_EQ(happened(), ended(description(error)));
  }
}

TEST_F(Route, TunnelsToTheServerName) {
  startReady(proxied, {.isDebug = true, .stored = NWHostEndpoint{"host.example", "8443"}});
  tcpFlow_->completeRead(hello);
  EXPECT_EQ(happened(), (Lines{"log: =============>" + request, "out1: send '" + request + "'"}));
  out().completeSend();
  EXPECT_EQ(happened(), Lines{"out1: receive 1..2048"});
  // The reply never reaches the flow; its is-complete flag and error do not count.
  out().completeReceive(bytes("HTTP/1.0 999 Connection Established\r\n\r\nrest"), true, broken);
  EXPECT_EQ(happened(), relay(hello, "out1"));
  EXPECT_EQ(out().lastSent(), hello);
}

TEST_F(Route, GoesByTheFirstBytes) {
  startReady(proxied);
  tcpFlow_->completeRead(bytes("xHTTP/1.1"));
  EXPECT_EQ(happened(), relay(bytes("xHTTP/1.1"), "out1"));
  startReady(proxied);
  tcpFlow_->completeRead(clientHello("GNOME.org"));
  EXPECT_TRUE(happened().at(0).starts_with("out1: send 'CONNECT GNOME.org:443 "));
  const std::string neither = "parse sni info failed, request neither https nor http";
  const std::string listed = "white list host name:";
  const NWFlowEndpoint opaque = NWOpaqueEndpoint{"Kind"};
  const std::tuple<Data, std::string, NWFlowEndpoint> cases[] = {
      {bytes("GET / HTTP/1.0\r\n\r\n"), neither, destination},
      {bytes("GET / http/1.1\r\n\r\n"), neither, destination},
      {bytes("GET / HTTP/1.1\r\n\r\n\xFF"), neither, opaque},
      {hello.slice(0, hello.count() - 1), neither, destination},
      {clientHello("accounts.tandor.cloud"), listed + "accounts.tandor.cloud", destination},
      {clientHello("www.gnome.org.example"), listed + "www.gnome.org.example", destination},
      {clientHello("gnome.org"), "flow.remoteEndpoint not NWHostEndpoint type", opaque}};
  for (const auto& [first, reason, flowEndpoint] : cases) {
    startReady(proxied, {.flowEndpoint = flowEndpoint});
    tcpFlow_->completeRead(first);
    EXPECT_EQ(happened(), switched(reason));
    out(2).enter(State::ready);
    EXPECT_EQ(happened(), relay(first, "out2"));
  }
}

TEST_F(Route, GoesByTheProxysReply) {
  using Pieces = std::vector<std::optional<std::string_view>>;
  using enum ConnectReply;
  const std::string longHead = "HTTP/1.1 200\r\nX: " + std::string(20'000, 'x');
  const std::tuple<ConnectReply, Pieces, bool, std::string> cases[] = {
      // judged by, what comes, whether there is a tunnel, what is the tunnel's already
      {phrase, {"HTTP/1.1 200 OK\r\n\r\n"}, false, ""},
      {phrase, {"Connection established"}, false, ""},
      {phrase, {"Connection Establishe"}, false, ""},
      {phrase, {""}, false, ""},
      {phrase, {std::nullopt}, false, ""},
      {phrase, {"HTTP/1.1 200 Connection Established\r\n\r\n\xFF"}, false, ""},
      {status, {"HTTP/1.1 200 OK\r\n\r\n"}, true, ""},
      {status, {"HTTP/1.0 299\n\nrest"}, true, "rest"},
      {status, {"HTTP/1.1 2", "00 \r\nA: b\r", "\n\r", "\nrest"}, true, "rest"},
      {status, {"HTTP/1.1 407 Connection Established\r\n"}, false, ""},
      {status, {"HTTP/1.1 2000 OK\r\n\r\n"}, false, ""},
      {status, {"HTTP/2.0 200 OK\r\n\r\n"}, false, ""},
      {status, {"HTTP/1.1 200 OK\r\n", std::string_view(longHead).substr(14)}, false, ""},
      {status, {std::nullopt}, false, ""},
      {status, {"HTTP/1.1 200 OK\r\n", std::nullopt}, false, ""}};
  for (const auto& [judged, pieces, isEstablished, rest] : cases) {
    startReady(proxied, {.connectReply = judged});
    tcpFlow_->completeRead(hello);
    out().completeSend();
    forget();
    for (std::size_t index = 0; index < pieces.size(); ++index) {
      EXPECT_EQ(happened(), index == 0 ? Lines() : Lines{"out1: receive 1..2048"});
      out().completeReceive(pieces[index].transform(bytes));
    }
    const Lines behind = {"out1: send " + show(hello), "flow1: write '" + rest + "'"};
    EXPECT_EQ(happened(), !isEstablished ? switched("nw connect request establish failed")
                          : rest.empty() ? relay(hello, "out1")
                                         : behind);
    if (isEstablished) continue;
    out(2).enter(State::ready);
    EXPECT_EQ(happened(), relay(hello, "out2"));
  }
  startReady(proxied);
  tcpFlow_->completeRead(hello);
  forget();
  out().completeSend(broken);
  EXPECT_EQ(happened(), switched("nw connect request send failed:broken"));
}

TEST_F(Route, UnusableDestinationEndsTheSwitch) {
  startReady(proxied, {.stored = NWHostEndpoint{"host.example", "x"}});
  tcpFlow_->completeRead(bytes("neither"));
  Lines lines = switched("parse sni info failed, request neither https nor http");
  lines.resize(3);
  EXPECT_EQ(happened(), lines + closed(R"(invalidEndpointPort(raw: "x"))"));
}

// What completes after a close must not bring the flow back to life.
TEST_F(Route, NothingHappensAfterAClose) {
  using Step = std::function<void()>;
  const Step readHello = [this] { tcpFlow_->completeRead(hello); };
  const Step sent = [this] { out().completeSend(); };
  const Step received = [this] { out().completeReceive(bytes("Connection Established")); };
  const Step failed = [this] { out().completeReceive(std::nullopt, false, broken); };
  const struct {
    ConnectionMode mode;
    std::vector<Step> before;
    std::vector<Step> late;
  } cases[] = {{proxied, {}, {readHello}},
               {proxied, {}, {[this] { tcpFlow_->completeRead(bytes("GET / HTTP/1.1")); }}},
               {proxied, {}, {[this] { tcpFlow_->completeRead(bytes("neither")); }}},
               {proxied, {readHello}, {[this] { out().completeSend(broken); }}},
               {proxied, {readHello, sent}, {received}},
               {proxied, {readHello, sent}, {failed}},
               {direct, {readHello}, {sent, received}},
               {direct, {received}, {readHello, [this] { tcpFlow_->completeWrite(); }}}};
  for (const auto& [mode, before, late] : cases) {
    for (const ConnectReply judged : {ConnectReply::phrase, ConnectReply::status}) {
      startReady(mode, {.connectReply = judged});
      for (const Step& step : before) step();
      connection_->closeAllConnWithError(std::nullopt);
      forget();
      for (const Step& step : late) step();
      EXPECT_EQ(happened(), Lines());
    }
  }
}

}  // namespace
}  // namespace tandor::test
