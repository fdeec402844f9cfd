#include "platform/dispatch/DispatchQueue.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <future>
#include <map>
#include <mutex>
#include <semaphore>
#include <thread>

namespace tandor {
namespace {

/// A thread that calls functions when their time has come. They must be short.
class Clock {
 public:
  using Time = std::chrono::steady_clock::time_point;

  [[nodiscard]] static Clock& shared() {
    // Never destroyed: its thread runs until the process ends.
    static Clock& clock = *new Clock;  // NOLINT(cppcoreguidelines-owning-memory)
    return clock;
  }

  void callAt(Time time, DispatchQueue::Block function) {
    const std::scoped_lock lock(mutex_);
    const auto position = waiting_.emplace(time, std::move(function));
    if (position == waiting_.begin()) changed_.notify_one();
  }

 private:
  Clock() {
    std::thread([this] { run(); }).detach();
  }

  void run() {
    std::unique_lock lock(mutex_);
    for (;;) {
      if (waiting_.empty()) {
        changed_.wait(lock);
      } else if (waiting_.begin()->first > std::chrono::steady_clock::now()) {
        changed_.wait_until(lock, Time(waiting_.begin()->first));
      } else {
        auto due = waiting_.extract(waiting_.begin());
        lock.unlock();
        due.mapped()();
        lock.lock();
      }
    }
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::multimap<Time, DispatchQueue::Block> waiting_;  // guarded by mutex_
};

/// A thread that waits in sync() runs its own block when its turn comes, and those before it that
/// no thread of the pool has come to run yet: these may all be waiting so themselves.
class FreeQueue final : public DispatchQueue {
 public:
  explicit FreeQueue(std::string_view label) noexcept : DispatchQueue(label, nullptr) {}

  void async(Block block) override {
    const std::scoped_lock lock(mutex_);
    waiting_.push_back({std::move(block), nullptr});
    if (std::exchange(isRunning_, true)) return;
    scheduleDrain();
  }

  DelayedBlock after(std::chrono::milliseconds delay, Block block) override {
    auto delayed = std::make_shared<Block>(std::move(block));
    Clock::shared().callAt(std::chrono::steady_clock::now() + delay,
                           [queue = weak_from_this(), weak = std::weak_ptr(delayed)] {
                             const auto alive = queue.lock();
                             if (alive == nullptr || weak.expired()) return;
                             alive->async([weak] {
                               if (const auto due = weak.lock()) (*due)();
                             });
                           });
    return delayed;
  }

 private:
  struct Turn {
    std::condition_variable come;
    bool hasCome = false;
  };
  /// An asynchronous block, or the turn of a thread with a synchronous one.
  struct Waiting {
    Block block;
    Turn* turn;
  };

  void runSync(SyncBlock block) override {
    if (isCurrent()) {
      block();
      return;
    }
    std::unique_lock lock(mutex_);
    if (std::exchange(isRunning_, true)) {
      Turn turn;
      waiting_.push_back({nullptr, &turn});
      while (!turn.hasCome) {
        if (std::exchange(isDrainExpected_, false)) {
          drain(lock);
        } else {
          turn.come.wait(lock);
        }
      }
    }
    lock.unlock();
    runAsCurrent(block);
    lock.lock();
    if (!passOn()) scheduleDrain();
  }

  template <typename Function>
  void runAsCurrent(Function& function) const {
    const DispatchQueue* outer = std::exchange(currentQueue, this);
    function();
    currentQueue = outer;
  }

  /// Gives the turn to the next one, with mutex_ held. Returns false when that is an asynchronous
  /// block, for which the caller finds a thread.
  bool passOn() {
    isRunning_ = !waiting_.empty();
    if (!isRunning_) return true;
    Turn* next = waiting_.front().turn;
    if (next == nullptr) return false;
    waiting_.pop_front();
    next->hasCome = true;
    next->come.notify_one();
    return true;
  }

  /// With mutex_ held.
  void scheduleDrain() {
    isDrainExpected_ = true;
    const auto waiter = std::ranges::find_if(
        waiting_, [](const Waiting& waiting) { return waiting.turn != nullptr; });
    if (waiter != waiting_.end()) waiter->turn->come.notify_one();
    GlobalQueue::shared().async([self = std::static_pointer_cast<FreeQueue>(shared_from_this())] {
      std::unique_lock lock(self->mutex_);
      if (std::exchange(self->isDrainExpected_, false)) self->drain(lock);
    });
  }

  /// Runs asynchronous blocks until it is another thread's turn, or nobody's.
  void drain(std::unique_lock<std::mutex>& lock) {
    while (!passOn()) {
      {
        Block block = std::move(waiting_.front().block);
        waiting_.pop_front();
        lock.unlock();
        runAsCurrent(block);
      }  // what the block captured goes before the next one runs, and outside the lock
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::deque<Waiting> waiting_;   // guarded by mutex_
  bool isRunning_ = false;        // guarded by mutex_: a block runs, or is about to
  bool isDrainExpected_ = false;  // guarded by mutex_: nobody has come yet to run what is first
};

class PinnedQueue final : public DispatchQueue {
 public:
  PinnedQueue(std::string_view label, std::shared_ptr<LoopAffinity> affinity) noexcept
      : DispatchQueue(label, std::move(affinity)) {}

  void async(Block block) override {
    waiting_.fetch_add(1, std::memory_order_relaxed);
    affinity()->loop().post(
        [self = std::static_pointer_cast<PinnedQueue>(shared_from_this()),
         run = std::move(block)]() mutable {
          self->waiting_.fetch_sub(1, std::memory_order_relaxed);
          run();
        },
        this);
  }

  DelayedBlock after(std::chrono::milliseconds delay, Block block) override {
    return affinity()->loop().after(delay, std::move(block));
  }

 private:
  void runSync(SyncBlock block) override {
    EventLoop& loop = affinity()->loop();
    if (loop.isCurrent()) {
      if (waiting_.load(std::memory_order_relaxed) != 0) loop.runPosted(*this);
      block();
      return;
    }
    std::promise<void> done;
    loop.post(
        [&] {
          block();
          done.set_value();
        },
        this);
    done.get_future().wait();
  }

  std::atomic<std::uint32_t> waiting_{0};
};

}  // namespace

std::shared_ptr<DispatchQueue> DispatchQueue::serial(std::string_view label) {
  return std::make_shared<FreeQueue>(label);
}

std::shared_ptr<DispatchQueue> DispatchQueue::serial(std::string_view label,
                                                     std::shared_ptr<LoopAffinity> affinity) {
  if (affinity == nullptr) return serial(label);
  return std::make_shared<PinnedQueue>(label, std::move(affinity));
}

/// Threads are added while every one is busy, so that blocks which wait do not starve the others.
struct GlobalQueue::Pool {
  static constexpr std::size_t maximumThreads = 64;

  void run() {
    std::unique_lock lock(mutex);
    for (;;) {
      ++idle;
      wake.wait(lock, [this] { return !blocks.empty(); });
      --idle;
      {
        DispatchQueue::Block block = std::move(blocks.front());
        blocks.pop_front();
        lock.unlock();
        block();
      }
      lock.lock();
    }
  }

  std::mutex mutex;
  std::condition_variable wake;
  std::deque<DispatchQueue::Block> blocks;
  std::size_t idle = 0;
  std::size_t threads = 0;
};

GlobalQueue::GlobalQueue() : pool_(std::make_unique<Pool>()) {}
GlobalQueue::~GlobalQueue() = default;

GlobalQueue& GlobalQueue::shared() {
  // Never destroyed: its threads run until the process ends.
  static GlobalQueue& queue = *new GlobalQueue;  // NOLINT(cppcoreguidelines-owning-memory)
  return queue;
}

void GlobalQueue::async(DispatchQueue::Block block) {
  Pool& pool = *pool_;
  const std::scoped_lock lock(pool.mutex);
  pool.blocks.push_back(std::move(block));
  if (pool.idle < pool.blocks.size() && pool.threads < Pool::maximumThreads) {
    ++pool.threads;
    std::thread([&pool] { pool.run(); }).detach();
  } else {
    pool.wake.notify_one();
  }
}

void dispatch_main() {
  for (;;) {
    static std::binary_semaphore never(0);
    never.acquire();
  }
}

}  // namespace tandor
