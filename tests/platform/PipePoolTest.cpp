#include <array>
#include <sys/socket.h>
#include <thread>
#include <vector>

#include "platform/Objects.h"
#include "platform/linux/PipePool.h"

namespace tandor::test {
namespace {

using Pipe = PipePool::Pipe;

/// 200 bytes from one socket pair, through a pipe, to another.
class PipePoolTest : public LoopTest {
 protected:
  void onLoop(std::invocable auto function) {
    loop().post([&] { function(); });
    passThrough();
  }
  /// The whole pattern, in a pipe.
  Data filled() {
    EXPECT_EQ(::send(source_[1].get(), pattern(200).data(), 200, 0), 200);
    Pipe* const pipe = loop().pipes().borrow();
    const Data owner(*pipe, 0, 0);
    EXPECT_EQ(pipe->fill(source_[0].get()), 200);
    return {*pipe, 0, 200};
  }
  ssize_t drain(const Data& range) {
    Pipe* const pipe = PipePool::holding(range);
    return pipe != nullptr ? pipe->drain(sink_[1].get(), range) : -1;
  }
  std::string arrived() {
    std::string text(200, '\0');
    text.resize(static_cast<std::size_t>(::recv(sink_[0].get(), text.data(), text.size(), 0)));
    return text;
  }

 private:
  static std::array<FileDescriptor, 2> connected() {
    std::array<int, 2> ends{};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()), 0);
    return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
  }

  std::array<FileDescriptor, 2> source_ = connected();
  std::array<FileDescriptor, 2> sink_ = connected();
};

TEST_F(PipePoolTest, BytesThatNobodyLooksAtNeverComeIntoMemory) {
  onLoop([&] {
    Data rest = filled();
    Data range = rest.slice(0, 50);
    rest.removeFirst(50);
    PipePool::holding(rest)->setRestHeld(true);
    EXPECT_TRUE(range.absorb(rest.slice(0, 50)));
    rest.removeFirst(50);
    EXPECT_EQ(drain(range), 100);
    EXPECT_EQ(arrived(), pattern(100));
    PipePool::holding(rest)->setRestHeld(false);
    range = {};
    EXPECT_EQ(drain(rest), 100);
    EXPECT_EQ(arrived(), pattern(100, 100));
    EXPECT_FALSE(rest.storage()->isInMemory());
    rest = {};
    loop().pipes().dropSpare();
  });
}

TEST_F(PipePoolTest, WhoeverLooksSeesTheBytesOnAnyThread) {
  Data kept;
  onLoop([&] {
    Data range = filled();
    kept = range.slice(20, 30);
    EXPECT_EQ(drain(range), Pipe::mustBeRead);  // somebody else may want to see them
    kept = {};
    range = range.slice(0, 100);
    EXPECT_EQ(drain(range), 100);
    range = Data(*range.storage(), 100, 100);
    kept = range.slice(20, 30);
    EXPECT_EQ(drain(range), Pipe::mustBeRead);
    EXPECT_EQ(arrived(), pattern(100));
  });
  std::vector<std::jthread> readers(4);
  for (std::jthread& reader : readers)
    reader = std::jthread([&, copy = kept] { EXPECT_EQ(copy.characters(), pattern(30, 120)); });
  readers.clear();
  EXPECT_TRUE(kept.storage()->isInMemory());
  kept = {};  // away from its loop
}

TEST_F(PipePoolTest, AWholePatternThatWasDroppedDoesNotComeOutLater) {
  onLoop([&] {
    static_cast<void>(filled());
    EXPECT_EQ(filled().characters(), pattern(200));
    EXPECT_EQ(filled().characters(), pattern(200));  // by the pipe whose bytes have been read
    loop().pipes().dropSpare();
  });
}

}  // namespace
}  // namespace tandor::test
