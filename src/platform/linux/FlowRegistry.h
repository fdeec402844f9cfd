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
    std::uint64_t open = 0;  // of the live ones, those that nobody has closed
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
  [[nodiscard]] std::size_t liveCount() const;
  /// How many flows there are, those included whose sockets have yet to come.
  [[nodiscard]] std::size_t existingCount() const noexcept {
    return existing_.load(std::memory_order_relaxed);
  }
  /// The live flows that are at home on `loop`.
  [[nodiscard]] std::vector<std::shared_ptr<InterceptedFlow>> flowsOf(const EpollLoop& loop) const;

  /// Goes through the open flows, newest first, in pieces that hold nobody up for long; those that
  /// begin meanwhile are not among them. Any thread, one at a time.
  class Listing {
   public:
    /// `registry` outlives the listing.
    explicit Listing(FlowRegistry& registry);
    Listing(const Listing&) = delete;
    Listing& operator=(const Listing&) = delete;
    ~Listing();
    /// Up to `count` further flows; none at the end.
    [[nodiscard]] std::vector<FlowInfo> next(std::size_t count);

   private:
    friend class FlowRegistry;
    FlowRegistry& registry_;
    const InterceptedFlow* next_;  // guarded by the registry
  };

  /// Null ends the observation; when it has returned, the old observer is not called any more.
  void setObserver(Observer observer);

 private:
  friend class InterceptedFlow;

  void add(InterceptedFlow& flow);
  void markClosed(InterceptedFlow& flow) noexcept;
  void remove(InterceptedFlow& flow) noexcept;
  void countUntaken(Event event, const InterceptedFlow::Origin& origin);
  [[nodiscard]] std::mutex& mutex() const noexcept { return mutex_; }

  mutable std::mutex mutex_;
  InterceptedFlow* first_ = nullptr;  // guarded by mutex_, as all that follows
  std::size_t liveCount_ = 0;
  std::size_t openCount_ = 0;
  std::vector<Listing*> listings_;
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
