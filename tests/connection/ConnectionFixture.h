#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "connection/TandorProxyConnection.h"
#include "support/Journal.h"
#include "support/ScriptedBackend.h"

namespace tandor::test {

using State = NWConnection::State::Kind;

/// One proxy connection between a scripted flow, flow1, and scripted outbound ones, with a delegate
/// that notes "delegate: told". What is carried to the connection's queue is waited for.
class ConnectionFixture : public testing::Test {
 protected:
  static inline const NSError broken{"Test", 7, "broken"};
  static inline const NWHostEndpoint destination{"host.example", "443"};
  static inline const NWInterface ethernet{"en0", NWInterface::InterfaceType::wiredEthernet, 2};

  ~ConnectionFixture() override { connection_ = nullptr; }

  /// Makes the connection; `stored` is the destination that it is given beside the flow's own.
  void make(ConnectionMode mode, bool isDebug = false, const NWFlowEndpoint& stored = destination) {
    adopt(std::move(mode), ConnectionNetwork::tcp(flow_, stored), isDebug);
  }
  void makeUDP(ConnectionMode mode, const NWFlowEndpoint& stored = destination) {
    udpFlow_ = platform_.udpFlow();
    adopt(std::move(mode), ConnectionNetwork::udp(udpFlow_, stored), false);
  }
  [[nodiscard]] static ConnectionMode direct(std::optional<NWInterface> interface = std::nullopt) {
    return ConnectionMode::directly(std::move(interface));
  }
  [[nodiscard]] static ConnectionMode proxied() {
    return ConnectionMode::httpProxy(
        NWEndpoint::hostPort(NWEndpoint::Host::name("proxy.example"), NWEndpoint::Port(3128)));
  }

  [[nodiscard]] ScriptedConnection& out(std::size_t number = 1) { return platform_.out(number); }

  /// What happened since the last call, once the connection's queue has come to rest.
  [[nodiscard]] Lines happened() {
    queue_->sync([] {});
    return journal_.take();
  }
  void forgetWhatHappened() { static_cast<void>(happened()); }

  Journal journal_;
  ScriptedBackend platform_{journal_};
  std::shared_ptr<ScriptedTCPFlow> flow_ = platform_.tcpFlow(destination);
  std::shared_ptr<ScriptedUDPFlow> udpFlow_;
  std::shared_ptr<TandorProxyConnection> connection_;

 private:
  struct Delegate final : TandorProxyConnectionDelegate {
    explicit Delegate(Journal& journalToUse) : journal(journalToUse) {}
    void proxyConnectionDidClose(const TandorProxyConnection& /*connection*/) override {
      journal.note("delegate: told");
    }
    Journal& journal;
  };

  void adopt(ConnectionMode mode, ConnectionNetwork network, bool isDebug) {
    connection_ = TandorProxyConnection::make(std::move(mode), std::move(network));
    connection_->setIsDebug(isDebug);
    connection_->setDelegate(delegate_);
    queue_ = connection_->nwQueue().shared_from_this();
  }

  std::shared_ptr<Delegate> delegate_ = std::make_shared<Delegate>(journal_);
  std::shared_ptr<DispatchQueue> queue_;
};

/// How the close of flow1 shows, with the delegate's call behind it.
[[nodiscard]] inline Lines closed(const std::string& error = "nil",
                                  const std::string& flow = "flow1") {
  return {flow + ": closeRead " + error, flow + ": closeWrite " + error, "delegate: told"};
}

/// How a whole end shows: the outbound connection `name` cancelled, then the flow closed.
[[nodiscard]] inline Lines ended(const std::string& error = "nil", const std::string& name = "out1",
                                 const std::string& flow = "flow1") {
  Lines lines = {name + ": handler cleared", name + ": cancel"};
  for (std::string& line : closed(error, flow)) lines.push_back(std::move(line));
  return lines;
}

[[nodiscard]] inline Lines operator+(Lines left, const Lines& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

}  // namespace tandor::test
