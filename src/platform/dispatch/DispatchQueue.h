#pragma once

#include <chrono>
#include <concepts>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

#include "platform/dispatch/EventLoop.h"

namespace tandor {

/// A serial queue: its blocks run one at a time, in order of submission.
///
/// A free queue borrows threads of the global pool for its asynchronous blocks. A pinned queue runs
/// everything on one event loop's thread, where the loop's single thread is the exclusion: being on
/// that thread is being on the queue, and it needs no lock.
class DispatchQueue : public std::enable_shared_from_this<DispatchQueue> {
 public:
  using Block = std::move_only_function<void()>;

  /// A free serial queue. `label` must outlive the queue (a literal).
  [[nodiscard]] static std::shared_ptr<DispatchQueue> serial(std::string_view label);
  /// A queue pinned to the loop of `affinity`; a free one when that is null.
  [[nodiscard]] static std::shared_ptr<DispatchQueue> serial(
      std::string_view label, std::shared_ptr<LoopAffinity> affinity);

  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;
  virtual ~DispatchQueue() = default;

  [[nodiscard]] std::string_view label() const noexcept { return label_; }
  /// What the queue is pinned to; null for a free queue.
  [[nodiscard]] const std::shared_ptr<LoopAffinity>& affinity() const noexcept { return affinity_; }

  /// Runs `block` later, after everything submitted before it. Any thread.
  virtual void async(Block block) = 0;

  using DelayedBlock = EventLoop::DelayedBlock;
  /// Runs `block` on the queue when `delay` is over, unless what is returned has been let go of by
  /// then, on the queue. On the queue.
  [[nodiscard]] virtual DelayedBlock after(std::chrono::milliseconds delay, Block block) = 0;

  /// Runs `function` under the queue's exclusion, after everything submitted before it, and returns
  /// its result. Blocks the caller until then; runs on the caller's thread where that is cheaper.
  /// On the queue itself it runs at once. A loop's thread must not wait so for another loop.
  template <std::invocable Function>
  std::invoke_result_t<Function> sync(Function&& function) {
    if constexpr (std::is_void_v<std::invoke_result_t<Function>>) {
      runSync(SyncBlock(function));
    } else {
      std::optional<std::invoke_result_t<Function>> result;
      auto store = [&] { result.emplace(function()); };
      runSync(SyncBlock(store));
      return std::move(*result);
    }
  }

  /// Runs `function` at once when the caller is already on the queue, else as an asynchronous
  /// block: carries a completion to the queue at no cost when it arrives there anyway.
  template <std::invocable Function>
  void carry(Function&& function) {
    if (isCurrent()) {
      function();
    } else {
      async(Block(std::forward<Function>(function)));
    }
  }

  /// Whether the caller runs under this queue's exclusion.
  [[nodiscard]] bool isCurrent() const noexcept {
    return loop_ != nullptr ? loop_->isCurrent() : currentQueue == this;
  }

 protected:
  /// A call that outlives no caller: refers to the function, allocates nothing.
  class SyncBlock {
   public:
    template <typename Function>
    explicit SyncBlock(Function& function)
        : target_(&function), call_([](void* target) { (*static_cast<Function*>(target))(); }) {}
    void operator()() const { call_(target_); }

   private:
    void* target_;
    void (*call_)(void*);
  };

  DispatchQueue(std::string_view label, std::shared_ptr<LoopAffinity> affinity) noexcept
      : label_(label),
        affinity_(std::move(affinity)),
        loop_(affinity_ != nullptr ? &affinity_->loop() : nullptr) {}

  virtual void runSync(SyncBlock block) = 0;

  /// The free queue whose block runs on this thread.
  static inline thread_local const DispatchQueue* currentQueue = nullptr;

 private:
  std::string_view label_;
  std::shared_ptr<LoopAffinity> affinity_;
  EventLoop* loop_;
};

/// The shared background queue of default quality of service: its blocks run on a small pool of
/// threads, concurrently and in no promised order.
class GlobalQueue {
 public:
  [[nodiscard]] static GlobalQueue& shared();

  GlobalQueue(const GlobalQueue&) = delete;
  GlobalQueue& operator=(const GlobalQueue&) = delete;

  /// Any thread. A block may block for long: the pool grows, within bounds, while all are busy.
  void async(DispatchQueue::Block block);

 private:
  GlobalQueue();
  ~GlobalQueue();
  struct Pool;
  std::unique_ptr<Pool> pool_;
};

/// Parks the calling thread for good; the process lives in its queues from here on.
[[noreturn]] void dispatch_main();

}  // namespace tandor
