#include "platform/linux/FlowRegistry.h"

#include <utility>

namespace tandor {

void FlowRegistry::add(InterceptedFlow& flow) {
  taken_.fetch_add(1, std::memory_order_relaxed);
  const std::scoped_lock lock(mutex_);
  flow.id_ = ++lastId_;
  flow.next_ = first_;
  if (first_ != nullptr) first_->previous_ = &flow;
  first_ = &flow;
  flow.isListed_ = true;
  flow.isOpen_ = true;
  ++liveCount_;
  ++openCount_;
  if (observer_) observer_(Event::open, flow.info());
}

void FlowRegistry::markClosed(InterceptedFlow& flow) noexcept {
  const std::scoped_lock lock(mutex_);
  if (std::exchange(flow.isOpen_, false)) --openCount_;
}

void FlowRegistry::remove(InterceptedFlow& flow) noexcept {
  const std::scoped_lock lock(mutex_);
  if (!std::exchange(flow.isListed_, false)) return;
  if (std::exchange(flow.isOpen_, false)) --openCount_;
  for (Listing* listing : listings_)
    if (listing->next_ == &flow) listing->next_ = flow.next_;
  (flow.previous_ != nullptr ? flow.previous_->next_ : first_) = flow.next_;
  if (flow.next_ != nullptr) flow.next_->previous_ = flow.previous_;
  --liveCount_;
  closedBytesIn_ += flow.bytesIn();
  closedBytesOut_ += flow.bytesOut();
  if (observer_) observer_(Event::close, flow.info());
}

void FlowRegistry::countUntaken(Event event, const InterceptedFlow::Origin& origin) {
  (event == Event::left ? left_ : refused_).fetch_add(1, std::memory_order_relaxed);
  if (!isObserved_.load(std::memory_order_acquire)) return;
  FlowInfo info;
  info.key = origin.key;
  info.pid = origin.pid;
  info.metaData = origin.metaData;
  info.since = std::chrono::system_clock::now();
  const std::scoped_lock lock(mutex_);
  if (observer_) observer_(event, info);
}

FlowRegistry::Counts FlowRegistry::counts() const {
  Counts counts;
  counts.taken = taken_.load(std::memory_order_relaxed);
  counts.left = left_.load(std::memory_order_relaxed);
  counts.refused = refused_.load(std::memory_order_relaxed);
  const std::scoped_lock lock(mutex_);
  counts.open = openCount_;
  counts.bytesIn = closedBytesIn_;
  counts.bytesOut = closedBytesOut_;
  for (const InterceptedFlow* flow = first_; flow != nullptr; flow = flow->next_) {
    counts.bytesIn += flow->bytesIn();
    counts.bytesOut += flow->bytesOut();
  }
  return counts;
}

FlowRegistry::Listing::Listing(FlowRegistry& registry) : registry_(registry) {
  const std::scoped_lock lock(registry_.mutex_);
  registry_.listings_.push_back(this);
  next_ = registry_.first_;
}

FlowRegistry::Listing::~Listing() {
  const std::scoped_lock lock(registry_.mutex_);
  std::erase(registry_.listings_, this);
}

std::vector<FlowInfo> FlowRegistry::Listing::next(std::size_t count) {
  std::vector<FlowInfo> flows;
  flows.reserve(count);
  const std::scoped_lock lock(registry_.mutex_);
  for (; next_ != nullptr && flows.size() < count; next_ = next_->next_)
    if (next_->isOpen_) flows.push_back(next_->info());
  return flows;
}

std::vector<std::shared_ptr<InterceptedFlow>> FlowRegistry::flowsOf(const EpollLoop& loop) const {
  std::vector<std::shared_ptr<InterceptedFlow>> flows;
  const std::scoped_lock lock(mutex_);
  for (InterceptedFlow* flow = first_; flow != nullptr; flow = flow->next_) {
    if (flow->residence() != &loop) continue;
    // Null when it is on its way out already.
    if (auto alive = std::static_pointer_cast<InterceptedFlow>(flow->self()))
      flows.push_back(std::move(alive));
  }
  return flows;
}

std::size_t FlowRegistry::liveCount() const {
  const std::scoped_lock lock(mutex_);
  return liveCount_;
}

void FlowRegistry::setObserver(Observer observer) {
  const std::scoped_lock lock(mutex_);
  observer_ = std::move(observer);
  isObserved_.store(static_cast<bool>(observer_), std::memory_order_release);
}

}  // namespace tandor
