#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <latch>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/dispatch/DispatchQueue.h"

namespace tandor::test {
namespace {

using namespace std::chrono_literals;

/// The plainest loop: a thread that runs what is posted.
class ThreadLoop final : public EventLoop, public LoopAffinity {
 public:
  ThreadLoop() : thread_([this](const std::stop_token& stop) { run(stop); }) {}

  [[nodiscard]] EventLoop& loop() const noexcept override { return const_cast<ThreadLoop&>(*this); }
  void post(Block block, const DispatchQueue* queue) override {
    const std::scoped_lock lock(mutex_);
    posted_.push_back({std::move(block), queue});
    arrived_.notify_one();
  }
  void runPosted(const DispatchQueue& queue) override {
    while (Block block = takeFirst(&queue)) block();
  }

 private:
  struct Posted {
    Block block;
    const DispatchQueue* queue;
  };

  void run(const std::stop_token& stop) {
    setCurrent(this);
    for (std::unique_lock lock(mutex_);
         arrived_.wait(lock, stop, [this] { return !posted_.empty(); });) {
      Block block = std::move(posted_.front().block);
      posted_.pop_front();
      lock.unlock();
      block();
      lock.lock();
    }
    setCurrent(nullptr);
  }
  Block takeFirst(const DispatchQueue* queue) {
    const std::scoped_lock lock(mutex_);
    for (auto entry = posted_.begin(); entry != posted_.end(); ++entry) {
      if (entry->queue != queue) continue;
      Block block = std::move(entry->block);
      posted_.erase(entry);
      return block;
    }
    return nullptr;
  }

  std::mutex mutex_;
  std::condition_variable_any arrived_;
  std::deque<Posted> posted_;  // guarded by mutex_
  std::jthread thread_;
};

enum class Kind : std::uint8_t { free, pinned };

class Queues : public testing::TestWithParam<Kind> {
 protected:
  std::shared_ptr<ThreadLoop> loop_ = std::make_shared<ThreadLoop>();
  std::shared_ptr<DispatchQueue> queue_ = GetParam() == Kind::free
                                              ? DispatchQueue::serial("label")
                                              : DispatchQueue::serial("label", loop_);
};

INSTANTIATE_TEST_SUITE_P(BothKinds, Queues, testing::Values(Kind::free, Kind::pinned));

TEST_P(Queues, RunsBlocksInTheOrderOfSubmission) {
  std::vector<int> order;
  for (int number = 0; number < 1000; ++number)
    queue_->async([&order, number] { order.push_back(number); });
  // The sync comes after all of them, and yields its result.
  EXPECT_EQ(queue_->sync([&] { return order.size(); }), 1000);
  EXPECT_TRUE(std::ranges::is_sorted(order));
}

TEST_P(Queues, RunsOneBlockAtATime) {
  constexpr int rounds = 300;
  int unguarded = 0;  // for ThreadSanitizer, and for lost additions
  std::atomic<int> inside{0};
  const auto block = [&] {
    EXPECT_EQ(++inside, 1);
    ++unguarded;
    --inside;
  };
  {
    std::array<std::jthread, 4> threads;
    for (std::jthread& thread : threads) {
      thread = std::jthread([&] {
        for (int round = 0; round < rounds; ++round) {
          queue_->sync([&] { block(); });
          queue_->async(block);
          queue_->carry(block);
        }
      });
    }
  }
  EXPECT_EQ(queue_->sync([&] { return unguarded; }), 4 * 3 * rounds);
}

TEST_P(Queues, SyncAndCarryOnTheQueueItselfRunAtOnce) {
  std::vector<int> order;
  std::latch done(1);
  queue_->async([&] {
    EXPECT_TRUE(queue_->isCurrent());
    queue_->async([&] { order.push_back(9); });
    queue_->carry([&] { order.push_back(1); });
    order.push_back(2);
    done.count_down();
  });
  done.wait();
  queue_->sync([&] {
    EXPECT_TRUE(queue_->isCurrent());
    queue_->sync([&] { order.push_back(3); });
    queue_->carry([&] { order.push_back(4); });
    order.push_back(5);
  });
  EXPECT_FALSE(queue_->isCurrent());
  EXPECT_EQ(order, (std::vector{1, 2, 9, 3, 4, 5}));
}

TEST_P(Queues, CarryFromElsewhereDoesNotWait) {
  std::latch carried(1);
  std::latch release(1);
  queue_->async([&] { release.wait(); });
  queue_->carry([&] { carried.count_down(); });
  EXPECT_FALSE(carried.try_wait());
  release.count_down();
  carried.wait();
}

TEST_P(Queues, LivesUntilItsBlocksHaveRun) {
  std::latch ran(20);
  const std::weak_ptr<DispatchQueue> watched = queue_;
  for (int count = 0; count < 20; ++count)
    queue_->async([&ran, last = count == 0 ? nullptr : queue_] { ran.count_down(); });
  queue_ = nullptr;
  ran.wait();
  while (!watched.expired()) std::this_thread::yield();  // a queue that stays is a test that hangs
}

TEST(FreeQueue, KeepsItsExclusionWhenABlockEntersAnother) {
  const auto outer = DispatchQueue::serial("outer");
  const auto inner = DispatchQueue::serial("inner");
  EXPECT_TRUE(outer->sync([&] {
    inner->sync([&] { EXPECT_TRUE(inner->isCurrent() && !outer->isCurrent()); });
    return outer->isCurrent() && !inner->isCurrent();
  }));
  EXPECT_EQ(outer->label(), "outer");
  EXPECT_EQ(DispatchQueue::serial("free", nullptr)->affinity(), nullptr);
}

TEST(PinnedQueue, SyncOnItsLoopComesBehindWhatWasSubmittedBefore) {
  const auto loop = std::make_shared<ThreadLoop>();
  const auto queue = DispatchQueue::serial("queue", loop);
  const auto other = DispatchQueue::serial("other", loop);
  std::vector<int> order;
  queue->sync([&] {
    other->async([&] { order.push_back(9); });
    queue->async([&] { order.push_back(1); });
    queue->async([&] { order.push_back(2); });
    queue->sync([&] { order.push_back(3); });
  });
  other->sync([] {});
  EXPECT_EQ(order, (std::vector{1, 2, 3, 9}));
  EXPECT_EQ(queue->affinity(), loop);
}

TEST(GlobalQueue, BlocksThatWaitDoNotHoldUpOthers) {
  constexpr int waiting = 12;
  std::latch all(waiting);
  std::latch done(waiting);
  for (int count = 0; count < waiting; ++count) {
    GlobalQueue::shared().async([&] {
      all.arrive_and_wait();  // passes only when every block has a thread
      done.count_down();
    });
  }
  done.wait();
}

TEST(FreeQueue, ThreadsOfThePoolThatWaitForItGetTheirTurns) {
  // More blocks than the pool has threads, each of which waits for the same queue.
  constexpr int blocks = 100;
  struct Shared {
    std::shared_ptr<DispatchQueue> queue = DispatchQueue::serial("contended");
    std::latch done{blocks};
  };
  const auto shared = std::make_shared<Shared>();  // outlives a failure
  shared->queue->sync([&] {
    for (int count = 0; count < blocks; ++count)
      GlobalQueue::shared().async(
          [shared] { shared->queue->sync([&] { shared->done.count_down(); }); });
    std::this_thread::sleep_for(50ms);
    shared->queue->async([shared] {});
  });
  for (int wait = 0; wait < 500 && !shared->done.try_wait(); ++wait)
    std::this_thread::sleep_for(10ms);
  EXPECT_TRUE(shared->done.try_wait());
}

}  // namespace
}  // namespace tandor::test
