#include "platform/linux/InterceptedFlow.h"

#include <utility>

#include "platform/linux/FlowRegistry.h"

namespace tandor {

InterceptedFlow::InterceptedFlow(Origin origin, FlowRegistry* registry)
    : origin_(std::move(origin)), registry_(registry) {
  if (registry_ != nullptr) registry_->existing_.fetch_add(1, std::memory_order_relaxed);
}

InterceptedFlow::~InterceptedFlow() {
  if (registry_ != nullptr) registry_->existing_.fetch_sub(1, std::memory_order_relaxed);
}

std::shared_ptr<LoopAffinity> InterceptedFlow::makeAffinity() const {
  return std::make_shared<Affinity>(std::static_pointer_cast<InterceptedFlow>(self()));
}

void InterceptedFlow::enlist() {
  since_ = std::chrono::system_clock::now();
  if (registry_ != nullptr) registry_->add(*this);
}

void InterceptedFlow::markClosed() noexcept {
  if (registry_ != nullptr) registry_->markClosed(*this);
}

void InterceptedFlow::delist() noexcept {
  if (registry_ != nullptr) registry_->remove(*this);
}

void InterceptedFlow::setOutbound(const SocketAddress& address, const std::string& interface) {
  if (registry_ == nullptr) return;
  const std::scoped_lock lock(registry_->mutex());
  outbound_ = address;
  interface_ = {};
  interface.copy(interface_.data(), interface_.size() - 1);
}

FlowInfo InterceptedFlow::info() const {
  return {.id = id_,
          .key = origin_.key,
          .pid = origin_.pid,
          .metaData = origin_.metaData,
          .outbound = outbound_,
          .interface = interface_,
          .bytesIn = bytesIn(),
          .bytesOut = bytesOut(),
          .since = since_};
}

}  // namespace tandor
