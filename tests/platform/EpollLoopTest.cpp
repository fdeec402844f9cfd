#include <atomic>
#include <ctime>
#include <sys/eventfd.h>
#include <thread>

#include "platform/Objects.h"
#include "platform/linux/EpollLoop.h"

namespace tandor::test {
namespace {

using namespace std::chrono_literals;
using EpollLoopTest = LoopTest;

/// Writes its letter when its timer or its task comes, and then acts, once.
struct Letter {
  Letter(EpollLoop& loop, std::string& text, char letter)
      : log(text), name(letter), timer(loop, EpollLoop::Call::to<&Letter::write>(this)) {}
  void write() {
    log += name;
    if (const auto action = std::exchange(then, nullptr)) action();
  }
  std::string& log;
  char name;
  std::function<void()> then;
  EpollLoop::Timer timer;
  EpollLoop::Task task{EpollLoop::Call::to<&Letter::write>(this)};
};

TEST_F(EpollLoopTest, TimersGoOffInOrderAndMayBeStoppedRestartedAndDestroyed) {
  std::string log;
  std::vector<std::unique_ptr<Letter>> letters;
  const Awaited<bool> over;
  const auto begin = EpollLoop::Clock::now();
  loop().post([&] {
    for (const char name : {'a', 'b', 'c', 'd', 'e'})
      letters.push_back(std::make_unique<Letter>(loop(), log, name));
    for (int delay = 20; const auto& letter : letters)
      letter->timer.start(std::chrono::milliseconds(std::exchange(delay, delay - 4)));
    letters[1]->timer.start(25ms);                         // restarted later
    letters[2]->then = [&] { letters[0]->timer.stop(); };  // stopped by another
    letters[4]->then = [&] { letters[4] = nullptr; };      // destroyed by itself
    letters[1]->then = [&] {
      letters[1]->then = [&] { over.set(true); };
      letters[1]->timer.start(30ms);  // started anew by itself
    };
  });
  static_cast<void>(over.get());
  EXPECT_EQ(log, "edcbb");
  EXPECT_GE(EpollLoop::Clock::now() - begin, 50ms);
  loop().post([&] { letters.clear(); });
  passThrough();
}

TEST_F(EpollLoopTest, SleepsWhenItsLastPostedBlockWasRunEarly) {
  const auto pinned = queue();
  const auto used = [] {
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
  };
  std::chrono::nanoseconds before{};
  const Awaited<std::chrono::nanoseconds> after;
  DispatchQueue::DelayedBlock later;
  pinned->async([&] {
    pinned->async([] {});
    pinned->sync([] {});  // runs what waits before it
    before = used();
    later = pinned->after(100ms, [&] { after.set(used()); });
  });
  EXPECT_LT(after.get() - before, 50ms);
}

TEST_F(EpollLoopTest, CompletionsComeBeforeDeferredStepsAndEachTaskOnce) {
  std::string log;
  std::vector<std::unique_ptr<Letter>> letters;
  loop().post([&] {
    for (const char name : {'f', 's', 'F', 'R', 'n', '.'})
      letters.push_back(std::make_unique<Letter>(loop(), log, name));
    EpollLoop::Task& first = letters[0]->task;
    for (const std::size_t deferred : {2U, 4U, 3U, 5U}) loop().defer(letters[deferred]->task);
    loop().schedule(first);
    loop().schedule(first);
    letters[4]->task.unlink();
    letters[0]->then = [&] { loop().schedule(letters[1]->task); };
    letters[2]->then = [&] { loop().schedule(first); };  // runs before the next deferred step
    letters[5]->then = [&] { letters.clear(); };
  });
  passThrough();
  EXPECT_EQ(log, "fsFfR.");
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

}  // namespace
}  // namespace tandor::test
