#include <algorithm>
#include <array>
#include <atomic>
#include <sys/eventfd.h>
#include <thread>

#include "platform/Objects.h"
#include "platform/linux/EpollLoop.h"

namespace tandor::test {
namespace {

using namespace std::chrono_literals;
using EpollLoopTest = LoopTest;

TEST_F(EpollLoopTest, RunsPostsOfManyThreadsInEachOnesOrder) {
  constexpr std::size_t threads = 4;
  constexpr std::size_t posts = isSanitized ? 5'000 : 50'000;
  std::array<std::size_t, threads> next{};  // touched by the loop's thread only
  std::size_t outOfOrder = 0;
  std::vector<std::jthread> posters;
  posters.reserve(threads);
  for (std::size_t thread = 0; thread < threads; ++thread) {
    posters.emplace_back([&, thread] {
      for (std::size_t number = 0; number < posts; ++number) {
        loop().post([&, thread, number] {
          if (next.at(thread)++ != number) ++outOfOrder;
        });
        if (number % 1024 == 0) std::this_thread::sleep_for(100us);  // the loop falls asleep
      }
    });
  }
  posters.clear();
  passThrough();
  EXPECT_EQ(outOfOrder, 0U);
  for (const std::size_t count : next) EXPECT_EQ(count, posts);
}

TEST_F(EpollLoopTest, PinnedQueueIsTheLoopForItsOwnBlocksOnly) {
  const auto own = queue();
  const auto other = queue();
  const Awaited<std::string> order;
  loop().post([&] {
    std::string text;
    EXPECT_TRUE(own->isCurrent());
    own->async([&] { text += "a"; });
    other->async([&] { text += "x"; });
    own->async([&] {
      text += "b";
      own->async([&] { text += "c"; });
      own->carry([&] { text += "!"; });
    });
    // On the loop: what waits in this queue comes first, the other queue's turn is later.
    EXPECT_EQ(own->sync([&] { return text; }), "ab!c");
    other->sync([&] { EXPECT_EQ(text, "ab!cx"); });
    order.set(text);
  });
  EXPECT_EQ(order.get(), "ab!cx");

  // From outside: after everything that was submitted before, and with its result.
  EXPECT_FALSE(own->isCurrent());
  std::vector<int> numbers;
  for (int number = 0; number < 100; ++number)
    own->async([&, number] { numbers.push_back(number); });
  own->carry([&] { numbers.push_back(100); });
  EXPECT_EQ(own->sync([&] {
    EXPECT_TRUE(loop().isCurrent());
    return numbers.size();
  }),
            101U);
  EXPECT_TRUE(std::ranges::is_sorted(numbers));
}

/// Writes its letter whenever it is called, and then acts, once.
struct Letter {
  void write() {
    log += name;
    if (const auto action = std::exchange(then, nullptr)) action();
  }
  std::string& log;
  char name;
  std::function<void()> then;
};

struct Alarm : Letter {
  Alarm(EpollLoop& loop, std::string& text, char letter)
      : Letter{text, letter, {}}, timer(loop, EpollLoop::Call::to<&Letter::write>(this)) {}
  EpollLoop::Timer timer;
};

struct Step : Letter {
  Step(std::string& text, char letter)
      : Letter{text, letter, {}}, task(EpollLoop::Call::to<&Letter::write>(this)) {}
  EpollLoop::Task task;
};

TEST_F(EpollLoopTest, TimersGoOffInOrderAndMayBeStoppedRestartedAndDestroyed) {
  std::string log;
  std::vector<std::unique_ptr<Alarm>> alarms;
  const Awaited<bool> over;
  const auto begin = EpollLoop::Clock::now();
  loop().post([&] {
    for (const char name : {'a', 'b', 'c', 'd', 'e'})
      alarms.push_back(std::make_unique<Alarm>(loop(), log, name));
    alarms[0]->timer.start(20ms);
    alarms[1]->timer.start(0ms);
    alarms[2]->timer.start(10ms);
    alarms[3]->timer.start(15ms);
    alarms[4]->timer.start(5ms);
    alarms[1]->timer.start(25ms);                        // restarted later
    alarms[2]->then = [&] { alarms[3]->timer.stop(); };  // stopped by another
    alarms[4]->then = [&] { alarms[4] = nullptr; };      // destroyed by itself
    alarms[0]->then = [&] {
      alarms[0]->then = [&] { over.set(true); };
      alarms[0]->timer.start(30ms);  // started anew by itself
    };
  });
  static_cast<void>(over.get());
  EXPECT_EQ(log, "ecaba");
  EXPECT_GE(EpollLoop::Clock::now() - begin, 50ms);
  loop().post([&] { alarms.clear(); });
  passThrough();
}

TEST_F(EpollLoopTest, CompletionsComeBeforeDeferredStepsAndEachTaskOnce) {
  std::string log;
  Step first(log, 'f');
  Step second(log, 's');
  Step flush(log, 'F');
  Step fill(log, 'R');
  Step never(log, 'n');
  loop().post([&] {
    loop().defer(flush.task);
    loop().defer(never.task);
    loop().defer(fill.task);
    loop().schedule(first.task);
    loop().schedule(first.task);
    never.task.unlink();
    first.then = [&] { loop().schedule(second.task); };
    flush.then = [&] { loop().schedule(first.task); };  // runs before the next deferred step
  });
  passThrough();
  EXPECT_EQ(log, "fsFfR");
}

TEST_F(EpollLoopTest, DestroysResidentsOnItsThreadBetweenSteps) {
  struct Inhabitant : EpollLoop::Resident {
    Inhabitant(EpollLoop& loop, std::atomic<int>& counter) : gone(counter) { settle(loop); }
    ~Inhabitant() override {
      EXPECT_TRUE(residence()->isCurrent());
      EXPECT_FALSE(isBusy);
      ++gone;
    }
    Inhabitant(const Inhabitant&) = delete;
    Inhabitant& operator=(const Inhabitant&) = delete;
    bool isBusy = false;
    std::atomic<int>& gone;
  };
  std::atomic<int> gone = 0;
  std::vector<std::jthread> owners(4);
  for (std::jthread& owner : owners) {
    owner = std::jthread([&] {
      for (int count = 0; count < 500; ++count) {
        auto resident = makeResident<Inhabitant>(loop(), gone);
        loop().post([copy = resident]() mutable {
          copy->isBusy = true;
          Inhabitant& mine = *copy;
          copy = nullptr;  // perhaps the last owner, while the object is at work
          mine.isBusy = false;
        });
      }
    });
  }
  owners.clear();
  EXPECT_TRUE(eventually([&] { return gone == 2000; }));
}

TEST_F(EpollLoopTest, ForgetsASourceThatIsRemovedDuringTheSameTurn) {
  // Two descriptors become ready at once; whoever is told first removes the other.
  struct Source final : EpollLoop::Source {
    void ready(std::uint32_t /*events*/) override {
      ++told;
      if (other == nullptr) return;
      loop->remove(other->descriptor.get(), *other);
      other->other = nullptr;
      other = nullptr;
    }
    EpollLoop* loop = nullptr;
    Source* other = nullptr;
    int told = 0;
    FileDescriptor descriptor{::eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC)};
  };
  Source left;
  Source right;
  left.loop = right.loop = &loop();
  left.other = &right;
  right.other = &left;
  loop().post([&] {
    EXPECT_TRUE(loop().add(left.descriptor.get(), left));
    EXPECT_TRUE(loop().add(right.descriptor.get(), right));
  });
  EXPECT_TRUE(eventually([&] {
    passThrough();
    return left.told + right.told > 0;
  }));
  passThrough();
  EXPECT_EQ(left.told + right.told, 1);
}

TEST(EpollLoop, EndsWithItsBlocksRunAndItsDescriptorsClosed) {
  const std::size_t before = openDescriptors();
  for (int round = 0; round < 20; ++round) {
    int ran = 0;
    auto loop = EpollLoop::make("short").value();
    for (int count = 0; count < 100; ++count) loop->post([&] { ++ran; });
    loop.reset();
    EXPECT_EQ(ran, 100);
  }
  EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace tandor::test
