#include <functional>

#include "connection/ConnectionFixture.h"
#include "support/Hello.h"

namespace tandor::test {
namespace {

/// Connections that start by way of the proxy.
class Route : public ConnectionFixture {
 protected:
  static inline const Data hello = clientHello("name.example");

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

TEST_F(Route, SwitchesToDirectModeWithTheSameFirstBytes) {
  startReady(proxied);
  tcpFlow_->completeRead(hello);
  forget();
  out().completeSend(broken);
  EXPECT_EQ(happened(), switched("nw connect request send failed:broken"));
  out(2).enter(State::ready);
  EXPECT_EQ(happened(), relay(hello, "out2"));

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
