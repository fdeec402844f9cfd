#include "connection/ConnectExchange.h"
#include "connection/ConnectionFixture.h"
#include "support/Hello.h"
#include "tls/HelloSupport.h"

namespace tandor::test {
namespace {

/// Connections that start by way of the proxy.
class Route : public ConnectionFixture {
 protected:
  static inline const Data hello = clientHello("name.example");
  static inline const std::string request =
      "CONNECT name.example:443 HTTP/1.1\r\nHost: name.example:443\r\n"
      "Proxy-Connection: keep-alive\r\n\r\n";

  /// Up to the read of the first bytes; returns the number of the connection to the proxy.
  std::size_t startProxied(bool isDebug = false) {
    make(proxied(), isDebug);
    connection_->start();
    const std::size_t number = platform_.connectionCount();
    out(number).enter(State::ready);
    forgetWhatHappened();
    return number;
  }
  void startProxiedAndRead(const Data& first) {
    startProxied();
    flow_->completeRead(first);
  }

  /// What happened, without what the parser says about bytes that are no ClientHello.
  [[nodiscard]] Lines happenedHere() {
    Lines lines = happened();
    std::erase(lines, "log: Request did not begin with TLS handshake.");
    return lines;
  }

  /// How the switch to direct mode shows.
  [[nodiscard]] static Lines direct(const std::string& reason) {
    return {"out1: handler cleared",
            "out1: cancel",
            "log: change connection to direct mode, reason: " + reason,
            "out2: tcp host.example:443",
            "out2: handler",
            "out2: start on tandor_nw_connection_queue"};
  }

  /// The relay opens on connection `name` with `first`, before the flow is read again.
  void expectRelayOf(const Data& first, const std::string& name) {
    EXPECT_EQ(happenedHere(), (Lines{name + ": send " + show(first), name + ": receive 1..2048"}));
  }
};

TEST(ConnectExchange, RequestByteForByte) {
  const Data request = makeConnectRequest("host.example", "8443");
  EXPECT_EQ(request.characters(),
            "CONNECT host.example:8443 HTTP/1.1\r\nHost: host.example:8443\r\n"
            "Proxy-Connection: keep-alive\r\n\r\n");
  EXPECT_EQ(request.count(), 93);
  EXPECT_TRUE(makeConnectRequest("2001:db8::1", "443")
                  .characters()
                  .starts_with("CONNECT 2001:db8::1:443 HTTP/1.1\r\n"));
}

TEST(ConnectExchange, OnlyThePhraseCounts) {
  const std::pair<std::string_view, bool> cases[] = {
      {"HTTP/1.1 200 Connection Established\r\n\r\n", true},
      {"HTTP/1.1 403 Connection Established?", true},
      {"anything\r\nX: Connection Established", true},
      {"HTTP/1.1 200 OK\r\n\r\n", false},
      {"HTTP/1.1 200 Connection established\r\n\r\n", false},
      {"HTTP/1.1 200 Connection  Established\r\n\r\n", false},
      {"HTTP/1.1 200 Connection Establishe", false},
      {"HTTP/1.1 200 Connection Established\r\n\r\n\xFF", false},
      {"", false},
  };
  for (const auto& [reply, isEstablished] : cases)
    EXPECT_EQ(isTunnelEstablished(bytes(reply)), isEstablished) << reply;
}

TEST_F(Route, ReadsTheFirstBytesOnceTheProxyIsReady) {
  make(proxied());
  connection_->start();
  forgetWhatHappened();
  out().enter(State::preparing);
  EXPECT_EQ(happened(), Lines{"log: unhandled: preparing"});
  out().enter(State::ready);
  EXPECT_EQ(happened(), (Lines{"log: proxy ready", "flow1: read"}));
  EXPECT_TRUE(connection_->flowHandled());
  out().enter(State::ready);
  EXPECT_EQ(happened(), Lines{"log: proxy ready"});
}

TEST_F(Route, NoFallbackWhenTheProxyCannotBeReached) {
  for (const auto& [state, name] :
       {std::pair(State::waiting, "waiting"), {State::failed, "failed"}}) {
    make(proxied());
    connection_->start();
    forgetWhatHappened();
    const std::size_t number = platform_.connectionCount();
    out(number).enter(state, broken);
    EXPECT_EQ(happened(),
              Lines{"log: proxy failed: broken ; state: " + std::string(name) + "(broken)"} +
                  ended("broken", "out" + std::to_string(number)));
  }
}

TEST_F(Route, FailedFirstReadEndsTheFlow) {
  const struct {
    std::optional<Data> data;
    std::optional<NSError> error;
    std::string shown;
  } cases[] = {{std::nullopt, broken, "broken"},
               {hello, broken, "broken"},
               {std::nullopt, std::nullopt, "nil"},
               {Data(), std::nullopt, "nil"}};
  for (const bool isDebug : {false, true}) {
    for (const auto& [data, error, shown] : cases) {
      const std::size_t number = startProxied(isDebug);
      flow_->completeRead(data, error);
      const Lines line = {"log: read flow for client hello packet failed with err: " +
                          (error ? shown : "null")};
      EXPECT_EQ(happened(),
                (isDebug ? line : Lines()) + ended(shown, "out" + std::to_string(number)));
      connection_ = nullptr;
    }
  }
}

TEST_F(Route, TunnelsToTheServerName) {
  startProxiedAndRead(hello);
  EXPECT_EQ(happened(), Lines{"out1: send '" + request + "'"});
  out().completeSend();
  EXPECT_EQ(happened(), Lines{"out1: receive 1..2048"});
  // The proxy's reply never reaches the flow; its is-complete flag and error do not count.
  out().completeReceive(bytes("HTTP/1.0 200 Connection Established\r\n\r\nrest"), true, broken);
  expectRelayOf(hello, "out1");
  EXPECT_EQ(out().lastSent(), hello);
  EXPECT_NE(connection_->mode().httpProxy(), nullptr);
}

TEST_F(Route, DebugShowsTheRequest) {
  startProxied(/*isDebug=*/true);
  flow_->completeRead(hello);
  EXPECT_EQ(happened(), (Lines{"log: =============>" + request, "out1: send '" + request + "'"}));
}

TEST_F(Route, NamesWhatRealClientsAskFor) {
  std::size_t tunnelled = 0;
  for (const RecordedHello& recorded : recordedHellos()) {
    SCOPED_TRACE(recorded.client);
    const auto name = serverName(Data::copying(recorded.bytes));
    ScriptedConnection& proxy = out(startProxied());
    flow_->completeRead(Data::copying(recorded.bytes));
    forgetWhatHappened();
    EXPECT_EQ(proxy.isCancelled(), !name);
    if (name) {
      EXPECT_EQ(proxy.lastSent(), makeConnectRequest(*name, "443"));
      ++tunnelled;
    }
  }
  EXPECT_GE(tunnelled, 10);
}

TEST_F(Route, PlainHTTPGoesToTheProxyUnchanged) {
  for (const char* first : {"GET http://host/ HTTP/1.1\r\nHost: host\r\n\r\n", "xHTTP/1.1"}) {
    const std::size_t number = startProxied();
    flow_->completeRead(bytes(first));
    expectRelayOf(bytes(first), "out" + std::to_string(number));
    connection_->closeAllConnWithError(std::nullopt);
    out(number).completeSend(broken);
  }
}

TEST_F(Route, SwitchesToDirectModeWithTheSameFirstBytes) {
  const std::string neither = "parse sni info failed, request neither https nor http";
  const std::string listed = "white list host name:";
  const std::pair<Data, std::string> cases[] = {
      {bytes("GET / HTTP/1.0\r\n\r\n"), neither},
      {bytes("GET / http/1.1\r\n\r\n"), neither},
      {bytes("GET / HTTP/1.1\r\n\r\n\xFF"), neither},
      {bytes("SSH-2.0-client\r\n"), neither},
      {hello.slice(0, hello.count() - 1), neither},
      {clientHello("accounts.tandor.cloud"), listed + "accounts.tandor.cloud"},
      {clientHello("gnome.org"), listed + "gnome.org"},
      {clientHello("www.gnome.org.example"), listed + "www.gnome.org.example"},
  };
  for (const auto& [first, reason] : cases) {
    SCOPED_TRACE(reason);
    const std::size_t number = startProxied();
    flow_->completeRead(first);
    const Lines lines = happenedHere();
    ASSERT_EQ(lines.size(), 6);
    EXPECT_EQ(lines[2], "log: change connection to direct mode, reason: " + reason);
    out(number + 1).enter(State::ready);
    expectRelayOf(first, "out" + std::to_string(number + 1));
    EXPECT_EQ(connection_->mode().description(), "directly(interface:nil)");
    connection_->closeAllConnWithError(std::nullopt);
    out(number + 1).completeSend(broken);
  }
}

TEST_F(Route, ListedNamesAreComparedAsTheyAre) {
  startProxiedAndRead(clientHello("GNOME.org"));
  EXPECT_TRUE(happened().at(0).starts_with("out1: send 'CONNECT GNOME.org:443 "));
}

TEST_F(Route, RefusedTunnelGoesDirect) {
  const std::optional<Data> replies[] = {
      bytes("HTTP/1.1 407 Proxy Authentication Required\r\n\r\n"),
      bytes("Connection Established\xFF"), Data(), std::nullopt};
  for (const auto& reply : replies) {
    const std::size_t number = startProxied();
    flow_->completeRead(hello);
    forgetWhatHappened();
    out(number).completeSend();
    forgetWhatHappened();
    out(number).completeReceive(reply, true, broken);
    EXPECT_EQ(happened().at(2),
              "log: change connection to direct mode, reason: nw connect request establish failed");
    out(number + 1).enter(State::ready);
    expectRelayOf(hello, "out" + std::to_string(number + 1));
    connection_->closeAllConnWithError(std::nullopt);
    out(number + 1).completeSend(broken);
  }
}

TEST_F(Route, FailedRequestGoesDirect) {
  startProxiedAndRead(hello);
  forgetWhatHappened();
  out().completeSend(broken);
  EXPECT_EQ(happened(), direct("nw connect request send failed:broken"));
  out(2).enter(State::ready);
  expectRelayOf(hello, "out2");
}

TEST_F(Route, DirectConnectionMayFailToo) {
  startProxiedAndRead(bytes("neither"));
  forgetWhatHappened();
  out(2).enter(State::waiting, broken);
  EXPECT_EQ(happened(), Lines{"log: nw direct connection failed: broken; state: waiting(broken)"} +
                            ended("broken", "out2"));
}

TEST_F(Route, FlowEndpointOfAnotherKindGoesDirect) {
  flow_ = platform_.tcpFlow(NWOpaqueEndpoint{"Kind"});
  startProxiedAndRead(hello);
  EXPECT_EQ(happened(), direct("flow.remoteEndpoint not NWHostEndpoint type"));
}

TEST_F(Route, UnusableDestinationEndsTheSwitch) {
  make(proxied(), /*isDebug=*/false, NWHostEndpoint{"host.example", "x"});
  connection_->start();
  out().enter(State::ready);
  forgetWhatHappened();
  flow_->completeRead(bytes("neither"));
  EXPECT_EQ(happenedHere(), (Lines{"out1: handler cleared", "out1: cancel",
                                   "log: change connection to direct mode, reason: parse sni info "
                                   "failed, request neither https nor http"}) +
                                closed(R"(invalidEndpointPort(raw: "x"))"));
}

TEST_F(Route, UDPGoesDirectWithoutARead) {
  makeUDP(proxied());
  connection_->start();
  forgetWhatHappened();
  out().enter(State::ready);
  EXPECT_EQ(happened(), (Lines{"log: proxy ready", "out1: handler cleared", "out1: cancel",
                               "log: change connection to direct mode, reason: udp flow not "
                               "support for http proxy",
                               "out2: udp host.example:443", "out2: handler",
                               "out2: start on tandor_nw_connection_queue"}));
  EXPECT_FALSE(connection_->flowHandled());
  out(2).enter(State::ready);
  EXPECT_EQ(happened(), (Lines{"flow2: read", "out2: receive 1..2048"}));
}

TEST_F(Route, NothingHappensAfterACancel) {
  // Closed while the first read, the request and the reply are under way: what comes late must not
  // bring the flow back to life.
  for (const Data& first : {hello, bytes("GET / HTTP/1.1\r\n\r\n"), bytes("neither")}) {
    startProxied();
    connection_->closeAllConnWithError(std::nullopt);
    forgetWhatHappened();
    flow_->completeRead(first);
    EXPECT_EQ(happened(), Lines()) << first.characters();
  }
  for (const bool isSent : {false, true}) {
    ScriptedConnection& proxy = out(startProxied());
    flow_->completeRead(hello);
    forgetWhatHappened();
    if (isSent) proxy.completeSend();
    connection_->closeAllConnWithError(std::nullopt);
    forgetWhatHappened();
    EXPECT_TRUE(isSent ? proxy.completeReceive(std::nullopt, false, broken)
                       : proxy.completeSend(broken));
    EXPECT_EQ(happened(), Lines());
  }
}

}  // namespace
}  // namespace tandor::test
