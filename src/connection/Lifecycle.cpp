#include "connection/TandorProxyConnection.h"
#include "support/Log.h"

namespace tandor {

TandorProxyConnection::TandorProxyConnection(MakeOnly /*unused*/, ConnectionMode mode,
                                             ConnectionNetwork network)
    : network_(std::move(network)),
      mode_(std::move(mode)),
      nwQueue_(
          DispatchQueue::serial("tandor_nw_connection_queue", network_.sourceFlow().affinity())) {}

TandorProxyConnection::~TandorProxyConnection() {
  // Nobody else knows this object any more, so the last steps need no queue.
  endWithError(std::nullopt);
  if (isDebug_) log("proxy conn dealloc");
}

void TandorProxyConnection::closeAllConnWithError(const std::optional<NSError>& error) {
  nwQueue_->sync([&] { endWithError(error); });
}

void TandorProxyConnection::cancelNWConnection() {
  if (connection_ == nullptr) return;
  // The handler goes first, so that the cancellation's own state change reaches nobody.
  connection_->setStateUpdateHandler(nullptr);
  connection_->cancel();
  connection_ = nullptr;
  tunnelLimit_ = nullptr;
}

void TandorProxyConnection::closeFlowWithError(const std::optional<NSError>& error) {
  NEAppProxyFlow& flow = network_.sourceFlow();
  flow.closeReadWithError(error);
  flow.closeWriteWithError(error);
  state_ = ConnectionState::invalid;
  if (const auto delegate = delegate_.lock()) delegate->proxyConnectionDidClose(*this);
}

void TandorProxyConnection::observeDeparture() {
  const auto* tcp = network_.tcp();
  if (tcp == nullptr) return;
  tcp->sourceFlow->setDepartureObserver(
      std::shared_ptr<NEFlowDepartureObserver>(shared_from_this(), this));
  tcp->sourceFlow->setDeparturePatience(departedPatience);
}

void TandorProxyConnection::applicationDidDepart(const std::optional<NSError>& error) {
  nwQueue_->carry([self = shared_from_this(), error] {
    if (self->state_ == ConnectionState::start) self->endWithError(error);
  });
}

void TandorProxyConnection::endWithError(const std::optional<NSError>& error) {
  cancelNWConnection();
  closeFlowWithError(error);
}

}  // namespace tandor
