#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/linux/InterceptedFlow.h"

namespace tandor {

/// The live flows, and the counts of what became of all that were offered. Any thread.
class FlowRegistry {
 public:
  enum class Event : std::uint8_t { open, close, left, refused };
  /// Hears of every event, on the thread where it happens; must not block.
  using Observer = std::function<void(Event, const FlowInfo&)>;

  struct Counts {
    std::uint64_t open = 0;
    std::uint64_t taken = 0;
    std::uint64_t left = 0;
    std::uint64_t refused = 0;
    std::uint64_t bytesIn = 0;
    std::uint64_t bytesOut = 0;
  };

  /// Flows that were not taken: counted, and told to the observer.
  void countLeft(const InterceptedFlow::Origin& origin) { countUntaken(Event::left, origin); }
  void countRefused(const InterceptedFlow::Origin& origin) { countUntaken(Event::refused, origin); }

  [[nodiscard]] Counts counts() const;
  [[nodiscard]] std::vector<FlowInfo> liveFlows() const;
  [[nodiscard]] std::size_t liveCount() const;
  /// How many flows there are, those included whose sockets have yet to come.
  [[nodiscard]] std::size_t existingCount() const noexcept {
    return existing_.load(std::memory_order_relaxed);
  }
  /// The live flows that are at home on `loop`.
  [[nodiscard]] std::vector<std::shared_ptr<InterceptedFlow>> flowsOf(const EpollLoop& loop) const;

  /// Null ends the observation; when it has returned, the old observer is not called any more.
  void setObserver(Observer observer);

 private:
  friend class InterceptedFlow;

  void add(InterceptedFlow& flow);
  void remove(InterceptedFlow& flow) noexcept;
  void countUntaken(Event event, const InterceptedFlow::Origin& origin);
  [[nodiscard]] std::mutex& mutex() const noexcept { return mutex_; }

  mutable std::mutex mutex_;
  InterceptedFlow* first_ = nullptr;  // guarded by mutex_, as all that follows
  std::size_t liveCount_ = 0;
  std::uint64_t lastId_ = 0;
  std::uint64_t closedBytesIn_ = 0;
  std::uint64_t closedBytesOut_ = 0;
  Observer observer_;
  std::atomic<std::size_t> existing_{0};
  std::atomic<std::uint64_t> taken_{0};
  std::atomic<std::uint64_t> left_{0};
  std::atomic<std::uint64_t> refused_{0};
  std::atomic<bool> isObserved_{false};
};

}  // namespace tandor
