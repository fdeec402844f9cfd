#include "host/EventLoop.h"

#include <algorithm>
#include <poll.h>
#include <vector>

namespace tandor::host {

using std::chrono::milliseconds;

EventLoop::Watch EventLoop::whenReadable(int descriptor, std::function<void()> handler) {
  const std::uint64_t key = ++lastKey_;
  sources_.emplace(
      key, Source{descriptor, std::make_shared<const std::function<void()>>(std::move(handler))});
  return {*this, key};
}

bool EventLoop::runUntil(const std::function<bool()>& isDone, std::optional<milliseconds> limit) {
  using Clock = std::chrono::steady_clock;
  constexpr milliseconds longest{60'000};
  const auto deadline = limit ? std::optional(Clock::now() + *limit) : std::nullopt;
  while (!isDone()) {
    milliseconds wait = longest;
    if (deadline) {
      const auto left = std::chrono::ceil<milliseconds>(*deadline - Clock::now());
      if (left <= milliseconds::zero()) return false;
      wait = std::min(wait, left);
    }
    serveOnce(wait);
  }
  return true;
}

void EventLoop::serveOnce(milliseconds limit) {
  std::vector<pollfd> waiting;
  std::vector<std::uint64_t> keys;
  for (const auto& [key, source] : sources_) {
    waiting.push_back({.fd = source.descriptor, .events = POLLIN, .revents = 0});
    keys.push_back(key);
  }
  if (::poll(waiting.data(), waiting.size(), static_cast<int>(limit.count())) <= 0) return;
  for (std::size_t index = 0; index < keys.size(); ++index) {
    if (waiting[index].revents == 0) continue;
    // An earlier handler may have ended this watch.
    const auto source = sources_.find(keys[index]);
    if (source == sources_.end()) continue;
    const auto handler = source->second.handler;
    (*handler)();
  }
}

}  // namespace tandor::host
