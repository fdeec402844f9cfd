#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "connection/TandorProxyConnection.h"
#include "support/Journal.h"
#include "support/ScriptedPlatform.h"

namespace tandor::test {

using State = NWConnection::State::Kind;

[[nodiscard]] inline Lines operator+(Lines left, const Lines& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

/// How the close of flow1 shows.
[[nodiscard]] inline Lines closed(const std::string& error = "nil") {
  return {"flow1: closeRead " + error, "flow1: closeWrite " + error, "delegate: told"};
}

/// How a whole end shows: the outbound connection cancelled, then the flow closed.
[[nodiscard]] inline Lines ended(const std::string& error = "nil",
                                 const std::string& out = "out1") {
  return Lines{out + ": handler cleared", out + ": cancel"} + closed(error);
}

const NWHostEndpoint destination{"host.example", "443"};

struct ConnectionOptions {
  bool isDebug = false;
  bool isUDP = false;
  NWFlowEndpoint stored = destination;  // what the connection is given as destination
  ConnectReply connectReply = ConnectReply::phrase;
};

/// One proxy connection between a scripted flow, flow1, and scripted outbound ones, with a delegate
/// that notes "delegate: told".
class ConnectionFixture : public testing::Test {
 protected:
  static inline const NSError broken{"Test", 7, "broken"};
  using Options = ConnectionOptions;
  static inline const ConnectionMode direct = ConnectionMode::directly(std::nullopt);
  static inline const ConnectionMode proxied = ConnectionMode::httpProxy(
      NWEndpoint::hostPort(NWEndpoint::Host::name("proxy.example"), NWEndpoint::Port(3128)));

  void TearDown() override { rest(); }

  /// Makes the connection, with everything scripted made anew.
  void make(const ConnectionMode& mode, const Options& options = {}) {
    rest();
    connection_ = nullptr;
    udpFlow_ = nullptr;
    tcpFlow_ = nullptr;
    platform_.reset();
    platform_.emplace(journal_);
    if (options.isUDP) {
      udpFlow_ = platform_->udpFlow();
    } else {
      tcpFlow_ = platform_->tcpFlow(destination);
    }
    connection_ = TandorProxyConnection::make(
        mode, options.isUDP ? ConnectionNetwork::udp(udpFlow_, options.stored)
                            : ConnectionNetwork::tcp(tcpFlow_, options.stored));
    connection_->setIsDebug(options.isDebug);
    connection_->setConnectReply(options.connectReply);
    connection_->setDelegate(delegate_);
    queue_ = connection_->nwQueue().shared_from_this();
    forget();
  }
  /// The same, and has it started.
  void start(const ConnectionMode& mode, const Options& options = {}) {
    make(mode, options);
    connection_->start();
    forget();
  }
  /// The same, up to the outbound connection's being ready.
  void startReady(const ConnectionMode& mode, const Options& options = {}) {
    start(mode, options);
    out().enter(State::ready);
    forget();
  }

  [[nodiscard]] ScriptedConnection& out(std::size_t number = 1) { return platform_->out(number); }

  /// What happened since the last call, once the connection's queue has come to rest; without what
  /// the parser says about bytes that are no ClientHello.
  [[nodiscard]] Lines happened() {
    rest();
    Lines lines = journal_.take();
    std::erase(lines, "log: Request did not begin with TLS handshake.");
    return lines;
  }
  void forget() { static_cast<void>(happened()); }

  Journal journal_;
  std::optional<ScriptedBackend> platform_;
  std::shared_ptr<ScriptedTCPFlow> tcpFlow_;
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

  void rest() {
    if (queue_ != nullptr) queue_->sync([] {});
  }

  std::shared_ptr<Delegate> delegate_ = std::make_shared<Delegate>(journal_);
  std::shared_ptr<DispatchQueue> queue_;
};

}  // namespace tandor::test
