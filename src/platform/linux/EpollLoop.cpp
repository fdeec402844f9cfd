#include "platform/linux/EpollLoop.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <pthread.h>
#include <sys/eventfd.h>
#include <utility>

#include "platform/foundation/NSLog.h"

namespace tandor {
namespace {

using namespace std::chrono_literals;

/// Deferred steps between two looks at the descriptors: enough to make the look cheap, few enough
/// that no socket waits long for its turn.
constexpr int stepsPerTurn = 64;

/// A loop that nothing has woken for so long keeps no descriptors in store.
constexpr auto idleAfter = 1000ms;
constexpr auto longestWait = 60'000ms;

/// A block that waits for its time, as its owner holds it.
class BlockOfTimer final : public EpollLoop::Resident {
 public:
  BlockOfTimer(EpollLoop& loop, EventLoop::Block block)
      : block_(std::move(block)), timer_(loop, EpollLoop::Call::to<&BlockOfTimer::run>(this)) {
    settle(loop);
  }
  void start(std::chrono::milliseconds delay) { timer_.start(delay); }

 private:
  void run() {
    // Nobody holds it any more: it is to be destroyed at the end of this turn.
    if (self() == nullptr) return;
    std::exchange(block_, nullptr)();
  }

  EventLoop::Block block_;
  EpollLoop::Timer timer_;
};

}  // namespace

void EpollLoop::TaskList::append(Task& task) noexcept {
  if (task.next_ != &task) return;
  task.next_ = this;
  task.previous_ = previous_;
  previous_->next_ = &task;
  previous_ = &task;
}

void EpollLoop::TaskList::prepend(Task& task) noexcept {
  task.unlink();
  task.next_ = next_;
  task.previous_ = this;
  next_->previous_ = &task;
  next_ = &task;
}

bool EpollLoop::TaskList::runFirst() {
  if (isEmpty()) return false;
  auto& task = static_cast<Task&>(*next_);  // all but the list itself are tasks
  task.unlink();
  task.call_();
  return true;
}

void EpollLoop::Timer::start(Clock::duration delay) {
  stop();
  position_ = loop_.timers_.emplace(Clock::now() + delay, this);
  isRunning_ = true;
}

void EpollLoop::Timer::stop() noexcept {
  if (!isRunning_) return;
  loop_.timers_.erase(position_);
  isRunning_ = false;
}

std::expected<std::unique_ptr<EpollLoop>, int> EpollLoop::make(const char* name) {
  FileDescriptor epoll(::epoll_create1(EPOLL_CLOEXEC));
  FileDescriptor wakeUp(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  epoll_event event{};
  event.events = EPOLLIN | EPOLLET;  // edge-triggered: every write wakes, nobody needs to read it
  event.data.ptr = nullptr;
  if (!epoll.isOpen() || !wakeUp.isOpen() ||
      ::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, wakeUp.get(), &event) != 0)
    return std::unexpected(errno);
  // The constructor is private: only a loop whose descriptors are there is ever made.
  std::unique_ptr<EpollLoop> loop(new EpollLoop(std::move(epoll), std::move(wakeUp)));  // NOLINT
  loop->thread_ = std::thread([&loop = *loop] { loop.run(); });
  ::pthread_setname_np(loop->thread_.native_handle(), name);
  return loop;
}

EpollLoop::~EpollLoop() {
  isEnding_ = true;
  post([] {});
  thread_.join();
}

void EpollLoop::post(Block block, const DispatchQueue* queue) {
  {
    const std::scoped_lock lock(postedMutex_);
    posted_.push_back({std::move(block), queue});
    hasPosted_ = true;
  }
  if (!isCurrent() && isAsleep_.exchange(false)) ::eventfd_write(wakeUp_.get(), 1);
}

void EpollLoop::runPosted(const DispatchQueue& queue) {
  for (;;) {
    Block block;
    {
      const std::scoped_lock lock(postedMutex_);
      const auto next = std::ranges::find(posted_, &queue, &Posted::queue);
      if (next == posted_.end()) return;
      block = std::move(next->block);
      posted_.erase(next);
      hasPosted_ = !posted_.empty();
    }
    block();
  }
}

EventLoop::DelayedBlock EpollLoop::after(std::chrono::milliseconds delay, Block block) {
  const auto delayed = makeResident<BlockOfTimer>(*this, std::move(block));
  delayed->start(delay);
  return delayed;
}

void EpollLoop::retire(std::unique_ptr<Resident> resident) {
  if (isCurrent()) {
    retired_.push_back(std::move(resident));
  } else {
    post([this, last = std::move(resident)]() mutable { retired_.push_back(std::move(last)); });
  }
}

bool EpollLoop::add(int descriptor, Source& source) {
  epoll_event event{};
  event.events = EPOLLIN | EPOLLOUT | EPOLLPRI | EPOLLRDHUP | EPOLLET;
  event.data.ptr = &source;
  return ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, descriptor, &event) == 0;
}

void EpollLoop::remove(int descriptor, const Source& source) noexcept {
  ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, descriptor, nullptr);
  for (std::size_t index = eventIndex_; index < eventCount_; ++index)
    if (events_[index].data.ptr == &source) events_[index].data.ptr = nullptr;
}

void EpollLoop::run() {
  setCurrent(this);
  gatherNSLog();
  // Sending through a pipe to a peer that has gone raises it, whatever the flags say.
  sigset_t brokenPipe;
  ::sigemptyset(&brokenPipe);
  ::sigaddset(&brokenPipe, SIGPIPE);
  ::pthread_sigmask(SIG_BLOCK, &brokenPipe, nullptr);
  while (!isEnding_) {
    waitForEvents();
    runTimers();
    runPostedBlocks();
    runSteps();
    buryRetired();
  }
  runPostedBlocks();
  runSteps();
  buryRetired();
  setCurrent(nullptr);
}

void EpollLoop::runSteps() {
  for (int steps = 0; steps < stepsPerTurn; ++steps) {
    while (completions_.runFirst()) {
    }
    if (!deferred_.runFirst()) return;
  }
  while (completions_.runFirst()) {
  }
}

int EpollLoop::waitLimit() {
  if (!deferred_.isEmpty() || !completions_.isEmpty()) return 0;
  const std::chrono::milliseconds longest = pipes_.hasSpare() ? idleAfter : longestWait;
  if (timers_.empty()) return pipes_.hasSpare() ? static_cast<int>(longest.count()) : -1;
  const auto wait =
      std::chrono::ceil<std::chrono::milliseconds>(timers_.begin()->first - Clock::now());
  return static_cast<int>(std::clamp(wait, 0ms, longest).count());
}

void EpollLoop::waitForEvents() {
  flushNSLog();
  int limit = waitLimit();
  // Asleep is said before the last look at what was posted, so a block posted after the look sees
  // it and wakes the loop.
  isAsleep_ = limit != 0;
  if (limit != 0 && hasPosted_) limit = 0;
  const int count =
      ::epoll_wait(epoll_.get(), events_.data(), static_cast<int>(events_.size()), limit);
  isAsleep_ = false;
  if (count == 0 && limit > 0) pipes_.dropSpare();
  eventCount_ = count > 0 ? static_cast<std::size_t>(count) : 0;
  for (eventIndex_ = 0; eventIndex_ < eventCount_; ++eventIndex_) {
    const epoll_event& event = events_[eventIndex_];
    if (event.data.ptr == nullptr) continue;
    static_cast<Source*>(event.data.ptr)->ready(event.events);
    // Each event's bytes are moved on while they are still in the cache.
    runSteps();
  }
  eventIndex_ = eventCount_ = 0;
}

void EpollLoop::runTimers() {
  if (timers_.empty()) return;
  const auto now = Clock::now();
  while (!timers_.empty() && timers_.begin()->first <= now) {
    Timer& timer = *timers_.begin()->second;
    timer.stop();
    timer.call_();  // may destroy the timer
  }
}

void EpollLoop::runPostedBlocks() {
  // Only what is there now: blocks that post blocks must not keep the sockets waiting.
  std::size_t count = 0;
  if (hasPosted_) {
    const std::scoped_lock lock(postedMutex_);
    count = posted_.size();
  }
  for (; count > 0; --count) {
    Block block;
    {
      const std::scoped_lock lock(postedMutex_);
      if (posted_.empty()) break;
      block = std::move(posted_.front().block);
      posted_.pop_front();
      hasPosted_ = !posted_.empty();
    }
    block();
  }
}

void EpollLoop::buryRetired() {
  while (!retired_.empty()) {
    const auto dead = std::exchange(retired_, {});
  }
}

}  // namespace tandor
