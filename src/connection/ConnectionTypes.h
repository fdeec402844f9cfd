#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "platform/network/NWEndpoint.h"
#include "platform/network/NWInterface.h"
#include "platform/networkextension/NEAppProxyFlow.h"

namespace tandor {

/// The route of a proxy connection.
class ConnectionMode {
 public:
  struct HttpProxy {
    NWEndpoint endPoint;
  };
  struct Directly {
    std::optional<NWInterface> interface;
  };

  /// Through the HTTP proxy at `endPoint`.
  [[nodiscard]] static ConnectionMode httpProxy(NWEndpoint endPoint) {
    return ConnectionMode(HttpProxy{std::move(endPoint)});
  }
  /// Straight to the flow's destination, bound to the interface when there is one.
  [[nodiscard]] static ConnectionMode directly(std::optional<NWInterface> interface) {
    return ConnectionMode(Directly{std::move(interface)});
  }

  [[nodiscard]] const HttpProxy* httpProxy() const noexcept {
    return std::get_if<HttpProxy>(&route_);
  }
  [[nodiscard]] const Directly* directly() const noexcept { return std::get_if<Directly>(&route_); }

  /// httpProxy(endPoint:HOST:PORT), or directly(interface:NAME) with nil for no interface.
  [[nodiscard]] std::string description() const;

 private:
  using Route = std::variant<HttpProxy, Directly>;
  explicit ConnectionMode(Route route) : route_(std::move(route)) {}
  Route route_;
};

/// An opened flow with the destination that its application asked for.
class ConnectionNetwork {
 public:
  struct Tcp {
    std::shared_ptr<NEAppProxyTCPFlow> sourceFlow;
    NWFlowEndpoint remoteEndpoint;
  };
  struct Udp {
    std::shared_ptr<NEAppProxyUDPFlow> sourceFlow;
    NWFlowEndpoint remoteEndpoint;
  };

  [[nodiscard]] static ConnectionNetwork tcp(std::shared_ptr<NEAppProxyTCPFlow> sourceFlow,
                                             NWFlowEndpoint remoteEndpoint) {
    return ConnectionNetwork(Tcp{std::move(sourceFlow), std::move(remoteEndpoint)});
  }
  [[nodiscard]] static ConnectionNetwork udp(std::shared_ptr<NEAppProxyUDPFlow> sourceFlow,
                                             NWFlowEndpoint remoteEndpoint) {
    return ConnectionNetwork(Udp{std::move(sourceFlow), std::move(remoteEndpoint)});
  }

  [[nodiscard]] const Tcp* tcp() const noexcept { return std::get_if<Tcp>(&network_); }
  [[nodiscard]] const Udp* udp() const noexcept { return std::get_if<Udp>(&network_); }

  /// The flow, of either kind.
  [[nodiscard]] NEAppProxyFlow& sourceFlow() const noexcept;
  [[nodiscard]] const NWFlowEndpoint& remoteEndpoint() const noexcept;

 private:
  using Network = std::variant<Tcp, Udp>;
  explicit ConnectionNetwork(Network network) : network_(std::move(network)) {}
  Network network_;
};

enum class ConnectionState : std::uint8_t { invalid, ready, start };

/// An outbound connection to be made.
struct NWNetwork {
  enum class Transport : std::uint8_t { tcp, udp };

  Transport transport;
  NWEndpoint remoteEndpoint;
  std::optional<NWInterface> interface;
};

}  // namespace tandor
