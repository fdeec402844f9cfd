#include "platform/linux/AnnouncedFlows.h"

#include <algorithm>
#include <utility>

namespace tandor {

void AnnouncedFlows::add(std::shared_ptr<SocketTCPFlow> flow) {
  const FlowKey key = flow->key();
  const std::scoped_lock lock(mutex_);
  tcp_.insert_or_assign(key, Connection{std::move(flow), Clock::now()});
}

void AnnouncedFlows::add(std::shared_ptr<SocketUDPFlow> flow) {
  const FlowKey key = flow->key();
  Datagrams entry;
  entry.flow = flow;
  entry.announced = std::move(flow);
  entry.since = Clock::now();
  const std::scoped_lock lock(mutex_);
  udp_.insert_or_assign(key, std::move(entry));
}

bool AnnouncedFlows::contains(const FlowKey& key) const {
  const std::scoped_lock lock(mutex_);
  return key.protocol == IPPROTO_TCP ? tcp_.contains(key) : udp_.contains(key);
}

std::shared_ptr<SocketTCPFlow> AnnouncedFlows::claim(const FlowKey& key) {
  const std::scoped_lock lock(mutex_);
  const auto entry = tcp_.find(key);
  if (entry == tcp_.end()) return nullptr;
  auto flow = std::move(entry->second.flow);
  tcp_.erase(entry);
  return flow;
}

AnnouncedFlows::Recipient AnnouncedFlows::recipient(const FlowKey& key) {
  const std::scoped_lock lock(mutex_);
  const auto entry = udp_.find(key);
  if (entry == udp_.end()) return {nullptr, false};
  if (auto flow = std::exchange(entry->second.announced, nullptr)) return {std::move(flow), true};
  return {entry->second.flow.lock(), false};
}

bool AnnouncedFlows::attached(const FlowKey& key) {
  const std::scoped_lock lock(mutex_);
  const auto entry = udp_.find(key);
  if (entry == udp_.end()) return true;
  entry->second.isAttached = true;
  return entry->second.hasEnded;
}

void AnnouncedFlows::end(const FlowKey& key) {
  std::shared_ptr<SocketUDPFlow> flow;
  {
    const std::scoped_lock lock(mutex_);
    const auto entry = udp_.find(key);
    if (entry == udp_.end()) return;
    entry->second.hasEnded = true;
    if (entry->second.isAttached) flow = entry->second.flow.lock();
  }
  if (flow != nullptr) flow->end();
}

void AnnouncedFlows::remove(const FlowKey& key) {
  const std::scoped_lock lock(mutex_);
  udp_.erase(key);
}

bool AnnouncedFlows::isAnyAnnounced() const {
  const std::scoped_lock lock(mutex_);
  return !tcp_.empty() || std::ranges::any_of(udp_, [](const auto& item) {
    return item.second.announced != nullptr;
  });
}

AnnouncedFlows::Overdue AnnouncedFlows::takeOverdue(Clock::duration patience) {
  Overdue overdue;
  const auto limit = Clock::now() - patience;
  const std::scoped_lock lock(mutex_);
  std::erase_if(tcp_, [&](auto& item) {
    if (item.second.since > limit) return false;
    overdue.tcp.push_back(std::move(item.second.flow));
    return true;
  });
  std::erase_if(udp_, [&](auto& item) {
    if (item.second.announced == nullptr || item.second.since > limit) return false;
    overdue.udp.push_back(std::move(item.second.announced));
    return true;
  });
  return overdue;
}

}  // namespace tandor
