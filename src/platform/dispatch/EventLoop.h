#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace tandor {

class DispatchQueue;

/// One thread that runs work in order: sockets' readiness, and the blocks of the queues that are
/// pinned to it. The backend of the operating system implements it.
class EventLoop {
 public:
  using Block = std::move_only_function<void()>;

  EventLoop() = default;
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;
  virtual ~EventLoop() = default;

  /// Whether the caller runs on this loop's thread. Cheap: asked for every chunk.
  [[nodiscard]] bool isCurrent() const noexcept { return currentLoop == this; }
  /// The loop whose thread this is, or null on any other thread.
  [[nodiscard]] static EventLoop* current() noexcept { return currentLoop; }

  /// Runs `block` on the loop's thread, in order of submission. Any thread. `queue`, if given, is
  /// the one that the block belongs to.
  virtual void post(Block block, const DispatchQueue* queue = nullptr) = 0;
  /// Runs the posted blocks of `queue` that still wait, now, in their order. On the loop's thread.
  virtual void runPosted(const DispatchQueue& queue) = 0;

  /// A block that waits for its time. Letting go of it, on the loop's thread, calls it off.
  using DelayedBlock = std::shared_ptr<const void>;
  /// Runs `block` when `delay` is over. On the loop's thread.
  [[nodiscard]] virtual DelayedBlock after(std::chrono::milliseconds delay, Block block) = 0;

 protected:
  /// Called by the loop's thread as its first act, and with null as its last.
  static void setCurrent(EventLoop* loop) noexcept { currentLoop = loop; }

 private:
  static inline thread_local EventLoop* currentLoop = nullptr;
};

/// What pins a queue: the loop of a flow, carried by the flow so that everything that is done for
/// it stays on one thread. Shared by the flow, its connection's queue and its outbound connection.
class LoopAffinity {
 public:
  LoopAffinity() = default;
  LoopAffinity(const LoopAffinity&) = delete;
  LoopAffinity& operator=(const LoopAffinity&) = delete;
  virtual ~LoopAffinity() = default;

  /// The loop; it outlives every affinity. Does not change once the flow is open.
  [[nodiscard]] virtual EventLoop& loop() const noexcept = 0;
};

}  // namespace tandor
