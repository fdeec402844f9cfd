#include <array>
#include <atomic>
#include <latch>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/dispatch/DispatchQueue.h"
#include "support/Waiting.h"

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
  std::latch release(1);  // from elsewhere, a carry does not wait
  queue->async([&] { release.wait(); });
  queue->carry([&] { order.push_back(6); });
  release.count_down();
  queue->sync([] {});
  EXPECT_EQ(order, (std::vector{1, 2, 5, 1, 2, 5, 6}));
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
  EXPECT_TRUE(eventually([&] { return watched.expired(); }));
}

// More blocks than the pool has threads, which wait for the same queue, and that for one of them.
TEST(GlobalQueue, BlocksThatWaitDoNotHoldUpOthers) {
  constexpr int blocks = 100;
  struct Shared {
    std::shared_ptr<DispatchQueue> queue = DispatchQueue::serial("contended");
    std::latch hasBegun{12};
    std::latch done{blocks};
  };
  const auto shared = std::make_shared<Shared>();  // outlives a failure
  shared->queue->sync([&] {
    for (int count = 0; count < blocks; ++count) {
      GlobalQueue::shared().async([shared, count] {
        if (count < 12) shared->hasBegun.arrive_and_wait();  // when each of them has a thread
        shared->queue->sync([&] { shared->done.count_down(); });
      });
    }
    shared->hasBegun.wait();
    shared->queue->carry([shared] {});
  });
  EXPECT_TRUE(eventually([&] { return shared->done.try_wait(); }));
}

}  // namespace
}  // namespace tandor::test
