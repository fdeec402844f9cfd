#include <algorithm>
#include <array>
#include <latch>
#include <thread>

#include "platform/Objects.h"

namespace tandor::test {
namespace {

using namespace std::chrono_literals;

/// Every test runs with a queue that is pinned to a loop and with a free one.
class DispatchQueueTest : public LoopTest, public testing::WithParamInterface<bool> {
 protected:
  const std::shared_ptr<DispatchQueue> queue_ = queue(GetParam());
};

INSTANTIATE_TEST_SUITE_P(Kinds, DispatchQueueTest, testing::Bool(),
                         [](const auto& kind) { return kind.param ? "Pinned" : "Free"; });

TEST_P(DispatchQueueTest, RunsEverythingOneAtATimeInTheOrderOfSubmission) {
  constexpr int rounds = 300;
  constexpr int threadCount = 4;
  std::array<int, threadCount> last{};  // unguarded, for ThreadSanitizer
  int count = 0;
  const auto block = [&](int thread, int number) {
    EXPECT_EQ(std::exchange(last.at(static_cast<std::size_t>(thread)), number), number - 1);
    ++count;
  };
  std::vector<std::jthread> threads;
  threads.reserve(threadCount);
  for (int thread = 0; thread < threadCount; ++thread) {
    threads.emplace_back([&, thread] {
      for (int number = 1; number <= 3 * rounds; number += 3) {
        queue_->async([&, thread, number] { block(thread, number); });
        queue_->carry([&, thread, number] { block(thread, number + 1); });
        queue_->sync([&] { block(thread, number + 2); });
      }
    });
  }
  threads.clear();
  EXPECT_EQ(queue_->sync([&] { return count; }), threadCount * 3 * rounds);
}

TEST_P(DispatchQueueTest, DelayedBlocksComeInTimeOrAreCalledOff) {
  std::string order;
  DispatchQueue::DelayedBlock late;
  DispatchQueue::DelayedBlock calledOff;
  DispatchQueue::DelayedBlock soon;
  const Awaited<bool> over;
  const auto begin = std::chrono::steady_clock::now();
  queue_->sync([&] {
    late = queue_->after(40ms, [&] {
      order += queue_->isCurrent() ? "c" : "?";
      over.set(true);
    });
    calledOff = queue_->after(10ms, [&] { order += "b"; });
    soon = queue_->after(1ms, [&] {
      order += queue_->isCurrent() ? "a" : "?";
      calledOff = nullptr;
    });
  });
  static_cast<void>(over.get());
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 40ms);
  EXPECT_EQ(queue_->sync([&] { return order; }), "ac");
}

TEST(DispatchQueue, SyncAndCarryOnTheQueueItselfRunAtOnce) {
  const auto queue = DispatchQueue::serial("queue");
  const auto inner = DispatchQueue::serial("inner");
  std::string order;
  for (int time = 0; time < 2; ++time) {
    queue->async([&] {
      queue->async([&] { order += "c"; });
      queue->carry([&] { order += "a"; });
      inner->sync([&] { EXPECT_TRUE(inner->isCurrent() && !queue->isCurrent()); });
      EXPECT_TRUE(queue->isCurrent() && !inner->isCurrent());
      queue->sync([&] { order += "b"; });
    });
    queue->sync([] {});
    EXPECT_FALSE(queue->isCurrent());
    queue->sync([] {});
  }
  std::latch release(1);  // from elsewhere, a carry does not wait
  queue->async([&] { release.wait(); });
  queue->carry([&] { order += "d"; });
  release.count_down();
  EXPECT_EQ(queue->sync([&] { return order; }), "abcabcd");
}

TEST(GlobalQueue, BlocksThatWaitDoNotHoldUpOthers) {
  constexpr int waiting = 12;
  constexpr int blocks = 100;  // more than the pool has threads
  struct Shared {
    std::shared_ptr<DispatchQueue> queue = DispatchQueue::serial("contended");
    std::latch all{waiting};
    std::latch done{blocks};
  };
  const auto shared = std::make_shared<Shared>();  // outlives a failure
  shared->queue->sync([&] {
    shared->queue->async([shared] {});  // nobody but those who wait behind it can run it
    for (int count = 0; count < blocks; ++count) {
      GlobalQueue::shared().async([shared, count] {
        if (count < waiting) shared->all.arrive_and_wait();  // when every such block has a thread
        shared->queue->sync([&] { shared->done.count_down(); });
      });
    }
    std::this_thread::sleep_for(50ms);
  });
  EXPECT_TRUE(eventually([&] { return shared->done.try_wait(); }));
}

}  // namespace
}  // namespace tandor::test
