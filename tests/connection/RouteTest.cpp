#include "connection/ConnectExchange.h"
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
  /// Up to the receive of the proxy's reply.
  void requestTunnel(const Options& options = {}) {
    startReady(proxied, options);
    tcpFlow_->completeRead(hello);
    out().completeSend();
    forget();
  }
};

TEST_F(Route, RequestByteForByte) {
  const Data made = makeConnectRequest("host.example", "8443");
  EXPECT_EQ(made.characters(),
            "CONNECT host.example:8443 HTTP/1.1\r\nHost: host.example:8443\r\n"
            "Proxy-Connection: keep-alive\r\n\r\n");
  EXPECT_EQ(made.count(), 93);
  EXPECT_TRUE(makeConnectRequest("::1", "443").characters().starts_with("CONNECT ::1:443 HTTP"));
}

TEST_F(Route, ReadsTheFirstBytesOnceTheProxyIsReady) {
  start(proxied);
  out().enter(State::preparing);
  EXPECT_EQ(happened(), Lines{"log: unhandled: preparing"});
  out().enter(State::ready);
  EXPECT_EQ(happened(), (Lines{"log: proxy ready", "flow1: read"}));
  out().enter(State::ready);
  EXPECT_EQ(happened(), Lines{"log: proxy ready"});
}

TEST_F(Route, NoFallbackWhenTheProxyCannotBeReached) {
  for (const auto& [state, name] :
       {std::pair(State::waiting, "waiting"), {State::failed, "failed"}}) {
    start(proxied);
    out().enter(state, broken);
    EXPECT_EQ(happened(),
              Lines{"log: proxy failed: broken ; state: " + std::string(name) + "(broken)"} +
                  ended("broken"));
  }
}

TEST_F(Route, FailedFirstReadEndsTheFlow) {
  using Error = std::optional<NSError>;
  const std::pair<std::optional<Data>, Error> cases[] = {
      {std::nullopt, broken}, {hello, broken}, {std::nullopt, Error()}, {Data(), Error()}};
  for (const bool isDebug : {false, true}) {
    for (const auto& [data, error] : cases) {
      startReady(proxied, {.isDebug = isDebug});
      tcpFlow_->completeRead(data, error);
      const Lines line = {"log: read flow for client hello packet failed with err: " +
                          std::string(error ? "broken" : "null")};
      EXPECT_EQ(happened(), (isDebug ? line : Lines()) + ended(description(error)));
    }
  }
}

TEST_F(Route, TunnelsToTheServerName) {
  for (const bool isDebug : {false, true}) {
    startReady(proxied, {.isDebug = isDebug, .stored = NWHostEndpoint{"host.example", "8443"}});
    tcpFlow_->completeRead(hello);
    const Lines line = {"log: =============>" + request};
    EXPECT_EQ(happened(), (isDebug ? line : Lines()) + Lines{"out1: send '" + request + "'"});
    out().completeSend();
    EXPECT_EQ(happened(), Lines{"out1: receive 1..2048"});
    // The reply never reaches the flow; its is-complete flag and error do not count.
    out().completeReceive(bytes("HTTP/1.0 999 Connection Established\r\n\r\nrest"), true, broken);
    EXPECT_EQ(happened(), relay(hello, "out1"));
    EXPECT_EQ(out().lastSent(), hello);
    EXPECT_EQ(connection_->mode().description(), proxied.description());
  }
}

TEST_F(Route, PlainHTTPGoesToTheProxyUnchanged) {
  for (const char* first : {"GET http://host/ HTTP/1.1\r\nHost: host\r\n\r\n", "xHTTP/1.1"}) {
    startReady(proxied);
    tcpFlow_->completeRead(bytes(first));
    EXPECT_EQ(happened(), relay(bytes(first), "out1"));
  }
}

TEST_F(Route, SwitchesToDirectModeWithTheSameFirstBytes) {
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
    EXPECT_EQ(connection_->mode().description(), "directly(interface:nil)");
  }
  startReady(proxied);
  tcpFlow_->completeRead(clientHello("GNOME.org"));
  EXPECT_TRUE(happened().at(0).starts_with("out1: send 'CONNECT GNOME.org:443 "));
}

TEST_F(Route, FailedRequestAndRefusedTunnelGoDirect) {
  startReady(proxied);
  tcpFlow_->completeRead(hello);
  forget();
  out().completeSend(broken);
  EXPECT_EQ(happened(), switched("nw connect request send failed:broken"));
  out(2).enter(State::ready);
  EXPECT_EQ(happened(), relay(hello, "out2"));
  for (const std::optional<Data>& reply :
       {std::optional(bytes("HTTP/1.1 200 OK\r\n\r\n")),
        std::optional(bytes("Connection established")),
        std::optional(bytes("Connection Establishe")), std::optional(Data()), std::optional<Data>(),
        std::optional(bytes("HTTP/1.1 200 Connection Established\r\n\r\n\xFF"))}) {
    requestTunnel();
    out().completeReceive(reply, true, broken);
    EXPECT_EQ(happened(), switched("nw connect request establish failed"));
    out(2).enter(State::ready);
    EXPECT_EQ(happened(), relay(hello, "out2"));
  }
}

TEST_F(Route, ReplyMayBeJudgedByItsStatus) {
  using Pieces = std::vector<std::string_view>;
  const std::string longHead = "HTTP/1.1 200\r\nX: " + std::string(20'000, 'x');
  const std::tuple<Pieces, bool, std::string> cases[] = {
      {{"HTTP/1.1 200 OK\r\n\r\n"}, true, ""},
      {{"HTTP/1.0 299\n\nrest"}, true, "rest"},
      {{"HTTP/1.1 2", "00 \r\nA: b\r", "\n\r", "\nrest"}, true, "rest"},
      {{"HTTP/1.1 407 Connection Established\r\n"}, false, ""},
      {{"HTTP/1.1 2000 OK\r\n\r\n"}, false, ""},
      {{"HTTP/2.0 200 OK\r\n\r\n"}, false, ""},
      {{"HTTP/1.1 200 OK\r\n", std::string_view(longHead).substr(14)}, false, ""}};
  for (const auto& [pieces, isEstablished, rest] : cases) {
    requestTunnel({.connectReply = ConnectReply::status});
    for (const std::string_view piece : pieces) {
      EXPECT_EQ(happened(), piece == pieces.front() ? Lines() : Lines{"out1: receive 1..2048"});
      out().completeReceive(bytes(piece));
    }
    // What came behind the head is the tunnel's and goes to the flow.
    const Lines behind = {"out1: send " + show(hello), "flow1: write '" + rest + "'"};
    EXPECT_EQ(happened(), !isEstablished ? switched("nw connect request establish failed")
                          : rest.empty() ? relay(hello, "out1")
                                         : behind);
  }
  for (const auto& last : {std::optional<Data>(), std::optional(bytes("HTTP/1.1 200 OK\r\n"))}) {
    requestTunnel({.connectReply = ConnectReply::status});
    out().completeReceive(last, true);
    EXPECT_EQ(happened(), switched("nw connect request establish failed"));
  }
}

TEST_F(Route, UnusableDestinationEndsTheSwitch) {
  startReady(proxied, {.stored = NWHostEndpoint{"host.example", "x"}});
  tcpFlow_->completeRead(bytes("neither"));
  Lines lines = switched("parse sni info failed, request neither https nor http");
  lines.resize(3);
  EXPECT_EQ(happened(), lines + closed(R"(invalidEndpointPort(raw: "x"))"));
}

TEST_F(Route, UDPGoesDirectWithoutARead) {
  start(proxied, {.isUDP = true});
  out().enter(State::ready);
  Lines lines = switched("udp flow not support for http proxy");
  lines[3] = "out2: udp host.example:443";
  EXPECT_EQ(happened(), Lines{"log: proxy ready"} + lines);
  EXPECT_FALSE(connection_->flowHandled());
  out(2).enter(State::ready);
  EXPECT_EQ(happened(), (Lines{"flow1: read", "out2: receive 1..2048"}));
}

// Closed while the first read, the request or the reply is under way: what comes late must not
// bring the flow back to life.
TEST_F(Route, NothingHappensAfterAClose) {
  for (const Data& first : {hello, bytes("GET / HTTP/1.1\r\n\r\n"), bytes("neither"), Data()}) {
    startReady(proxied);
    connection_->closeAllConnWithError(std::nullopt);
    forget();
    tcpFlow_->completeRead(first);
    EXPECT_EQ(happened(), Lines()) << first.characters();
  }
  for (const ConnectReply judged : {ConnectReply::phrase, ConnectReply::status}) {
    requestTunnel({.connectReply = judged});
    connection_->closeAllConnWithError(std::nullopt);
    forget();
    EXPECT_TRUE(out().completeReceive(std::nullopt, false, broken));
    EXPECT_EQ(happened(), Lines());
  }
  startReady(proxied);
  tcpFlow_->completeRead(hello);
  connection_->closeAllConnWithError(std::nullopt);
  forget();
  EXPECT_TRUE(out().completeSend(broken));
  EXPECT_EQ(happened(), Lines());
}

}  // namespace
}  // namespace tandor::test
