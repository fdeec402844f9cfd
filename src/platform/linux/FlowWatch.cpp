#include "platform/linux/FlowWatch.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <netinet/in.h>
#include <string_view>
#include <utility>

#include <asio/post.hpp>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace tandor {

using nlohmann::json;

namespace {

/// Events that may wait for the service thread.
constexpr std::size_t mostHappenings = 4096;
/// Bytes that a client may leave unread before it loses events, and until it gets some again.
constexpr std::size_t mostUnread = std::size_t{1} << 20;
constexpr std::size_t fewUnread = mostUnread / 2;

json textOrNull(std::string_view text) {
  return text.empty() ? json() : json(text);
}

}  // namespace

json flowJSON(const FlowInfo& flow) {
  return {{"id", flow.id},
          {"app", flow.metaData != nullptr ? flow.metaData->sourceAppSigningIdentifier : ""},
          {"pid", flow.pid},
          {"protocol", flow.key.protocol == IPPROTO_UDP ? "udp" : "tcp"},
          {"source", flow.key.source.description()},
          {"destination", flow.key.destination.description()},
          {"outbound", flow.outbound.length() > 0 ? json(flow.outbound.description()) : json()},
          {"interface", textOrNull(flow.interface.data())},
          {"bytesIn", flow.bytesIn},
          {"bytesOut", flow.bytesOut},
          {"since", fmt::format("{:%Y-%m-%dT%H:%M:%SZ}",
                                fmt::gmtime(std::chrono::system_clock::to_time_t(flow.since)))}};
}

void FlowWatch::add(ControlServer::Reply client) {
  client.whenHungUp([this] { forgetThoseThatHungUp(); });
  watchers_.push_back({std::move(client), 0});
  if (watchers_.size() == 1) {
    registry_.setObserver(
        [this](FlowRegistry::Event event, const FlowInfo& flow) { happened(event, flow); });
  }
}

void FlowWatch::happened(FlowRegistry::Event event, const FlowInfo& flow) {
  const std::scoped_lock lock(mutex_);
  if (happenings_.size() >= mostHappenings) {
    ++lost_;
    return;
  }
  happenings_.push_back({event, flow});
  if (!std::exchange(isDeliveryDue_, true)) asio::post(service_.context(), [this] { deliver(); });
}

void FlowWatch::deliver() {
  static constexpr std::array<std::string_view, 4> names = {"open", "close", "left", "refused"};
  std::deque<Happening> happenings;
  std::uint64_t lost = 0;
  {
    const std::scoped_lock lock(mutex_);
    happenings.swap(happenings_);
    lost = std::exchange(lost_, 0);
    isDeliveryDue_ = false;
  }
  for (const auto& [event, flow] : happenings) {
    const json line = {{"event", names.at(static_cast<std::size_t>(event))},
                       {"flow", flowJSON(flow)}};
    for (Watcher& watcher : watchers_) send(watcher, line);
  }
  // Those that were dropped came after those that were kept.
  if (lost > 0)
    for (Watcher& watcher : watchers_) lose(watcher, lost);
}

void FlowWatch::forgetThoseThatHungUp() {
  std::erase_if(watchers_, [](const Watcher& watcher) { return !watcher.client.isConnected(); });
  if (watchers_.empty()) registry_.setObserver(nullptr);
}

bool FlowWatch::isWatching(const ControlServer::Reply& client) const {
  return std::ranges::any_of(
      watchers_, [&](const Watcher& watcher) { return watcher.client.isOfSameClient(client); });
}

void FlowWatch::send(Watcher& watcher, const json& line) {
  if (watcher.lost > 0 || watcher.client.unsentBytes() > mostUnread) {
    lose(watcher, 1);
  } else {
    watcher.client.push(line);
  }
}

void FlowWatch::lose(Watcher& watcher, std::uint64_t events) {
  if (std::exchange(watcher.lost, watcher.lost + events) == 0)
    watcher.client.whenUnsentFallsTo(fewUnread, [this] { tellGaps(); });
}

void FlowWatch::tellGaps() {
  for (Watcher& watcher : watchers_) {
    if (watcher.lost == 0 || watcher.client.unsentBytes() > fewUnread) continue;
    watcher.client.push({{"event", "gap"}, {"lost", std::exchange(watcher.lost, 0)}});
  }
}

}  // namespace tandor
