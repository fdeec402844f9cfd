#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <concepts>
#include <cstdint>
#include <deque>
#include <expected>
#include <map>
#include <memory>
#include <mutex>
#include <sys/epoll.h>
#include <thread>
#include <vector>

#include "platform/dispatch/EventLoop.h"
#include "platform/linux/BufferPool.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/FlightPool.h"
#include "platform/linux/PipePool.h"

namespace tandor {

/// An event loop over epoll, on a thread of its own.
///
/// Its work comes in three stages, so that bytes leave gathered: completions first, until none is
/// left; then one deferred step (a flush or a read of a socket), then the completions that it
/// caused; and when the deferred steps have had their share, the next readiness events. Tasks are
/// intrusive: scheduling one costs no allocation. All but post() and retire() belong to its thread.
class EpollLoop final : public EventLoop {
 public:
  using Clock = std::chrono::steady_clock;

  /// A file descriptor's owner, told of its readiness edges.
  class Source {
   public:
    Source() = default;
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    /// `events` are EPOLL* bits.
    virtual void ready(std::uint32_t events) = 0;

   protected:
    ~Source() = default;
  };

  /// A member function of an object, called without allocation.
  class Call {
   public:
    template <auto method, typename Target>
    [[nodiscard]] static Call to(Target* target) noexcept {
      return Call(target, [](void* object) { (static_cast<Target*>(object)->*method)(); });
    }
    void operator()() const { call_(target_); }

   private:
    Call(void* target, void (*call)(void*)) noexcept : target_(target), call_(call) {}
    void* target_;
    void (*call_)(void*);
  };

  /// A place in a line, which is a ring.
  class Link {
   public:
    Link() = default;
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    void unlink() noexcept {
      next_->previous_ = previous_;
      previous_->next_ = next_;
      next_ = previous_ = this;
    }

   protected:
    ~Link() = default;

   private:
    friend class EpollLoop;
    Link* next_ = this;
    Link* previous_ = this;
  };

  /// A step that waits in line; in line once, however often it is scheduled.
  class Task final : public Link {
   public:
    explicit Task(Call call) noexcept : call_(call) {}
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;
    ~Task() { unlink(); }

   private:
    friend class EpollLoop;
    Call call_;
  };

  /// A one-shot timer. Its owner may destroy or restart it at any time, also when it goes off.
  class Timer {
   public:
    Timer(EpollLoop& loop, Call call) noexcept : loop_(loop), call_(call) {}
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;
    ~Timer() { stop(); }

    void start(Clock::duration delay);
    void stop() noexcept;
    [[nodiscard]] bool isRunning() const noexcept { return isRunning_; }

   private:
    friend class EpollLoop;
    EpollLoop& loop_;
    Call call_;
    std::multimap<Clock::time_point, Timer*>::iterator position_;
    bool isRunning_ = false;
  };

  /// An object that lives on a loop: whoever drops it last, it is destroyed by the loop's thread
  /// between two steps, so that no handler of it is on the stack.
  class Resident {
   public:
    Resident() = default;
    Resident(const Resident&) = delete;
    Resident& operator=(const Resident&) = delete;
    virtual ~Resident() = default;

    /// Null until the object has come to a loop; set once.
    [[nodiscard]] EpollLoop* residence() const noexcept { return residence_; }

   protected:
    void settle(EpollLoop& loop) noexcept { residence_ = &loop; }
    /// The object as its owners hold it.
    [[nodiscard]] std::shared_ptr<Resident> self() const noexcept { return self_.lock(); }
    /// Runs `function` on the loop, at once when the caller is there. The object has settled.
    template <std::invocable Function>
    void onLoop(Function&& function) {
      if (residence_->isCurrent()) {
        function();
      } else {
        residence_->post(
            [self = self(), run = std::forward<Function>(function)]() mutable { run(); });
      }
    }

   private:
    template <typename Type, typename... Arguments>
    friend std::shared_ptr<Type> makeResident(Arguments&&... arguments);

    EpollLoop* residence_ = nullptr;
    std::weak_ptr<Resident> self_;
  };

  /// A loop with its thread running, or the number of the error that prevents it. `name`, at most
  /// 15 characters, is shown by the system's tools.
  [[nodiscard]] static std::expected<std::unique_ptr<EpollLoop>, int> make(const char* name);
  /// Ends and joins the thread. Residents must be gone.
  ~EpollLoop() override;
  EpollLoop(const EpollLoop&) = delete;
  EpollLoop& operator=(const EpollLoop&) = delete;

  void post(Block block, const DispatchQueue* queue = nullptr) override;
  void runPosted(const DispatchQueue& queue) override;
  [[nodiscard]] DelayedBlock after(std::chrono::milliseconds delay, Block block) override;
  /// Takes an object that nobody refers to any more. Any thread.
  void retire(std::unique_ptr<Resident> resident);

  /// Watches `descriptor` edge-triggered for reading, writing, urgent bytes and hang-up. False when
  /// the system has no room for it.
  [[nodiscard]] bool add(int descriptor, Source& source);
  /// Ends the watch; no event reaches `source` from here on. Before the descriptor is closed.
  void remove(int descriptor, const Source& source) noexcept;

  /// Runs `task` in this turn, before anything is flushed or read.
  void schedule(Task& task) noexcept { completions_.append(task); }
  /// Runs `task` in this turn or the next, after the completions.
  void defer(Task& task) noexcept { deferred_.append(task); }
  /// The same, before all that is deferred already.
  void hurry(Task& task) noexcept { deferred_.prepend(task); }

  /// Did several descriptors become ready at once? Then what saves work comes before what is
  /// prompt.
  [[nodiscard]] bool isBusy() const noexcept { return eventCount_ > 1; }

  [[nodiscard]] BufferPool& buffers() noexcept { return buffers_; }
  [[nodiscard]] FlightPool& flights() noexcept { return flights_; }
  [[nodiscard]] PipePool& pipes() noexcept { return pipes_; }

 private:
  class TaskList final : public Link {
   public:
    void append(Task& task) noexcept;
    void prepend(Task& task) noexcept;
    /// Runs the first task; false when there is none.
    bool runFirst();
    [[nodiscard]] bool isEmpty() const noexcept { return next_ == this; }
  };
  EpollLoop(FileDescriptor epoll, FileDescriptor wakeUp) noexcept
      : epoll_(std::move(epoll)), wakeUp_(std::move(wakeUp)), buffers_(*this), pipes_(*this) {}

  struct Posted {
    Block block;
    const DispatchQueue* queue;
  };

  void run();
  void runSteps();
  void waitForEvents();
  void runTimers();
  void runPostedBlocks();
  void buryRetired();
  [[nodiscard]] int waitLimit();

  FileDescriptor epoll_;
  FileDescriptor wakeUp_;
  std::atomic<bool> isAsleep_{false};
  std::atomic<bool> isEnding_{false};

  std::mutex postedMutex_;
  std::deque<Posted> posted_;  // guarded by postedMutex_
  std::atomic<bool> hasPosted_{false};

  TaskList completions_;
  TaskList deferred_;
  std::multimap<Clock::time_point, Timer*> timers_;
  std::vector<std::unique_ptr<Resident>> retired_;
  std::array<epoll_event, 256> events_{};
  std::size_t eventIndex_ = 0;  // the event that is being handled, of
  std::size_t eventCount_ = 0;
  BufferPool buffers_;
  FlightPool flights_;
  PipePool pipes_;
  std::thread thread_;
};

/// Hands an object that nobody refers to any more to its loop.
struct RetireToLoop {
  void operator()(EpollLoop::Resident* resident) const {
    std::unique_ptr<EpollLoop::Resident> last(resident);
    if (EpollLoop* loop = last->residence()) loop->retire(std::move(last));
  }
};

/// Makes a shared object that dies on its loop.
template <typename Type, typename... Arguments>
[[nodiscard]] std::shared_ptr<Type> makeResident(Arguments&&... arguments) {
  std::shared_ptr<Type> resident(
      std::make_unique<Type>(std::forward<Arguments>(arguments)...).release(), RetireToLoop{});
  resident->self_ = resident;
  return resident;
}

}  // namespace tandor
