#include <array>
#include <atomic>
#include <chrono>
#include <latch>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/dispatch/DispatchQueue.h"

namespace tandor::test {
namespace {

using namespace std::chrono_literals;

TEST(DispatchQueue, RunsEverythingOneAtATimeInTheOrderOfSubmission) {
  constexpr int rounds = 300;
  constexpr int threadCount = 4;
  const auto queue = DispatchQueue::serial("queue");
  std::array<int, threadCount> last{};  // unguarded, for ThreadSanitizer
  int count = 0;
  const auto block = [&](int thread, int number) {
    EXPECT_EQ(std::exchange(last.at(static_cast<std::size_t>(thread)), number), number - 1);
    ++count;
  };
  {
    std::vector<std::jthread> threads;
    threads.reserve(threadCount);
    for (int thread = 0; thread < threadCount; ++thread) {
      threads.emplace_back([&, thread] {
        for (int number = 1; number <= 3 * rounds; number += 3) {
          queue->async([&, thread, number] { block(thread, number); });
          queue->carry([&, thread, number] { block(thread, number + 1); });
          queue->sync([&] { block(thread, number + 2); });
        }
      });
    }
  }
  EXPECT_EQ(queue->sync([&] { return count; }), threadCount * 3 * rounds);
}

TEST(DispatchQueue, SyncAndCarryOnTheQueueItselfRunAtOnce) {
  const auto queue = DispatchQueue::serial("queue");
  const auto inner = DispatchQueue::serial("inner", nullptr);
  std::vector<int> order;
  const auto run = [&] {
    queue->async([&] { order.push_back(5); });
    queue->carry([&] { order.push_back(1); });
    inner->sync([&] { EXPECT_TRUE(inner->isCurrent() && !queue->isCurrent()); });
    EXPECT_TRUE(queue->isCurrent() && !inner->isCurrent());
    queue->sync([&] { order.push_back(2); });
  };
  queue->async([&] { run(); });
  queue->sync([] {});
  queue->sync([&] { run(); });
  EXPECT_FALSE(queue->isCurrent());
  queue->sync([] {});
  EXPECT_EQ(order, (std::vector{1, 2, 5, 1, 2, 5}));
}

TEST(DispatchQueue, CarryFromElsewhereDoesNotWait) {
  const auto queue = DispatchQueue::serial("queue");
  std::latch release(1);
  std::latch carried(1);
  queue->async([&] { release.wait(); });
  queue->carry([&] { carried.count_down(); });
  EXPECT_FALSE(carried.try_wait());
  release.count_down();
  carried.wait();
}

TEST(DispatchQueue, LivesUntilItsBlocksHaveRunAndReleasesWhatTheyHeld) {
  auto queue = DispatchQueue::serial("queue");
  const std::weak_ptr<DispatchQueue> watched = queue;
  auto held = std::make_shared<int>(1);
  const std::weak_ptr<int> watchedHeld = held;
  queue->async([held = std::move(held)] { std::this_thread::sleep_for(5ms); });
  queue->sync([&] { EXPECT_TRUE(watchedHeld.expired()); });
  queue->async([] { std::this_thread::sleep_for(5ms); });
  queue = nullptr;
  for (int wait = 0; wait < 5000 && !watched.expired(); ++wait) std::this_thread::sleep_for(1ms);
  EXPECT_TRUE(watched.expired());
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

// More blocks than the pool has threads, each of which waits for the same queue.
TEST(GlobalQueue, ThreadsThatWaitForAQueueGetTheirTurns) {
  constexpr int blocks = 100;
  struct Shared {
    std::shared_ptr<DispatchQueue> queue = DispatchQueue::serial("contended");
    std::latch done{blocks};
  };
  const auto shared = std::make_shared<Shared>();  // outlives a failure
  shared->queue->sync([&] {
    for (int count = 0; count < blocks; ++count) {
      GlobalQueue::shared().async(
          [shared] { shared->queue->sync([&] { shared->done.count_down(); }); });
    }
    std::this_thread::sleep_for(50ms);
    shared->queue->async([shared] {});
  });
  for (int wait = 0; wait < 500 && !shared->done.try_wait(); ++wait)
    std::this_thread::sleep_for(10ms);
  EXPECT_TRUE(shared->done.try_wait());
}

}  // namespace
}  // namespace tandor::test
