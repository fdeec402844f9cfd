#include "connection/ConnectExchange.h"
#include "connection/TandorProxyConnection.h"
#include "support/Log.h"

namespace tandor {

TandorProxyConnection::StartResult TandorProxyConnection::startDirectly(
    std::optional<NWInterface> interface, std::optional<Data> firstData) {
  mode_ = ConnectionMode::directly(interface);
  const NWFlowEndpoint& remoteEndpoint = network_.remoteEndpoint();
  const auto* hostEndpoint = std::get_if<NWHostEndpoint>(&remoteEndpoint);
  if (hostEndpoint == nullptr)
    return std::unexpected(TandorProxyError::invalidEndpointType(className(remoteEndpoint)));
  const auto port = NWEndpoint::Port::fromText(hostEndpoint->port);
  if (!port) return std::unexpected(TandorProxyError::invalidEndpointPort(hostEndpoint->port));
  const auto transport =
      network_.udp() != nullptr ? NWNetwork::Transport::udp : NWNetwork::Transport::tcp;
  connection_ = newNWConnection(
      {transport, NWEndpoint::hostPort(NWEndpoint::Host::name(hostEndpoint->hostname), *port),
       std::move(interface)});
  connection_->setStateUpdateHandler(
      [weakSelf = weak_from_this(),
       firstData = std::move(firstData)](const NWConnection::State& state) mutable {
        const auto self = weakSelf.lock();
        if (self == nullptr) return;
        switch (state.kind) {
          case NWConnection::State::Kind::waiting:
          case NWConnection::State::Kind::failed:
            log("nw direct connection failed: " + description(state.error) + "; state:", state);
            self->endWithError(state.error);
            break;
          case NWConnection::State::Kind::ready:
            self->startRelay(std::move(firstData));
            break;
          default:
            break;
        }
      });
  connection_->start(nwQueue_);
  return {};
}

std::shared_ptr<NWConnection> TandorProxyConnection::newNWConnection(const NWNetwork& network) {
  NWParameters parameters =
      network.transport == NWNetwork::Transport::udp ? NWParameters::udp() : NWParameters::tcp();
  parameters.requiredInterface = network.interface;
  return NWConnection::make(network.remoteEndpoint, parameters);
}

void TandorProxyConnection::handleConnectRequestServerResponseCompletion(
    TunnelCompletion completion) {
  if (connection_ == nullptr) return;
  if (connectReply_ == ConnectReply::status) {
    receiveConnectReplyHead(std::make_unique<ConnectReplyReader>(), std::move(completion));
    return;
  }
  connection_->receive(
      1, maximumReceiveLength,
      [weakSelf = weak_from_this(), connection = connection_.get(),
       completion = std::move(completion)](
          const std::optional<Data>& reply, NWConnection::ContentContext /*context*/,
          bool /*isComplete*/, const std::optional<NSError>& /*error*/) mutable {
        const auto self = weakSelf.lock();
        if (self == nullptr || !self->isCurrent(connection)) return;
        // No bytes is a refusal like any other: no flow waits without end.
        completion(reply && isTunnelEstablished(*reply), {});
      });
}

void TandorProxyConnection::receiveConnectReplyHead(std::unique_ptr<ConnectReplyReader> reader,
                                                    TunnelCompletion completion) {
  connection_->receive(
      1, maximumReceiveLength,
      [weakSelf = weak_from_this(), connection = connection_.get(), reader = std::move(reader),
       completion = std::move(completion)](
          const std::optional<Data>& piece, NWConnection::ContentContext /*context*/,
          bool isComplete, const std::optional<NSError>& /*error*/) mutable {
        const auto self = weakSelf.lock();
        if (self == nullptr || !self->isCurrent(connection)) return;
        using Outcome = ConnectReplyReader::Outcome;
        const Outcome outcome = piece ? reader->consume(*piece) : Outcome::refused;
        if (outcome == Outcome::indeterminate && !isComplete) {
          self->receiveConnectReplyHead(std::move(reader), std::move(completion));
        } else {
          completion(outcome == Outcome::established, reader->behind());
        }
      });
}

}  // namespace tandor
