#include <array>
#include <fcntl.h>
#include <sys/socket.h>
#include <thread>
#include <vector>

#include "platform/Objects.h"
#include "platform/linux/PipePool.h"

namespace tandor::test {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Pipe = PipePool::Pipe;

Bytes bytesOf(const Data& data) {
  return {data.bytes().begin(), data.bytes().end()};
}

/// Bytes from one socket pair, through a pipe, to another.
class PipePoolTest : public LoopTest {
 protected:
  PipePoolTest() {
    connect(source_);
    connect(sink_);
    for (std::size_t index = 0; index < pattern_.size(); ++index)
      pattern_[index] = static_cast<std::uint8_t>(index);
    sendAgain();
  }

  void sendAgain() const {
    EXPECT_EQ(::send(source_[1].get(), pattern_.data(), pattern_.size(), 0), 200);
  }
  void onLoop(std::invocable auto function) {
    loop().post([&] { function(); });
    passThrough();
  }
  /// The whole pattern, in a pipe.
  Data filled() {
    Pipe* const pipe = loop().pipes().borrow();
    const Data owner(*pipe, 0, 0);
    EXPECT_EQ(pipe->fill(source_[0].get()), 200);
    return {*pipe, 0, 200};
  }
  ssize_t drain(const Data& range) {
    Pipe* const pipe = PipePool::holding(range);
    return pipe != nullptr ? pipe->drain(sink_[1].get(), range) : -1;
  }
  Bytes arrived() {
    Bytes bytes(pattern_.size());
    const ssize_t count = ::recv(sink_[0].get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    return bytes;
  }
  [[nodiscard]] Bytes pattern(std::size_t from, std::size_t to) const {
    return {pattern_.begin() + static_cast<std::ptrdiff_t>(from),
            pattern_.begin() + static_cast<std::ptrdiff_t>(to)};
  }

 private:
  static void connect(std::array<FileDescriptor, 2>& pair) {
    std::array<int, 2> ends{};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()), 0);
    pair = {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
  }

  Bytes pattern_ = Bytes(200);
  std::array<FileDescriptor, 2> source_;
  std::array<FileDescriptor, 2> sink_;
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
    EXPECT_EQ(arrived(), pattern(0, 100));
    PipePool::holding(rest)->setRestHeld(false);
    range = {};
    EXPECT_EQ(drain(rest), 100);
    EXPECT_EQ(arrived(), pattern(100, 200));
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
    EXPECT_EQ(arrived(), pattern(0, 100));
  });
  std::vector<std::jthread> readers(4);
  for (std::jthread& reader : readers)
    reader = std::jthread([&, copy = kept] { EXPECT_EQ(bytesOf(copy), pattern(120, 150)); });
  readers.clear();
  EXPECT_TRUE(kept.storage()->isInMemory());
  kept = {};  // away from its loop
}

TEST_F(PipePoolTest, AWholePatternThatWasDroppedDoesNotComeOutLater) {
  onLoop([&] {
    static_cast<void>(filled());
    sendAgain();
    EXPECT_EQ(bytesOf(filled()), pattern(0, 200));
    sendAgain();
    EXPECT_EQ(bytesOf(filled()), pattern(0, 200));  // by the pipe whose bytes have been read
    loop().pipes().dropSpare();
  });
}

TEST_F(PipePoolTest, FewPipesAreInUse) {
  onLoop([&] {
    const std::size_t before = openDescriptors();
    std::vector<Data> owners;
    while (Pipe* const pipe = loop().pipes().borrow()) owners.emplace_back(*pipe, 0, 0);
    EXPECT_EQ(owners.size(), 256);
    owners.clear();
    EXPECT_TRUE(loop().pipes().hasSpare());
    EXPECT_LE(openDescriptors(), before + 16);
  });
  // A loop that has nothing to do keeps none.
  EXPECT_TRUE(eventually([this] {
    bool hasSpare = true;
    onLoop([&] { hasSpare = loop().pipes().hasSpare(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    return !hasSpare;
  }));
}

}  // namespace
}  // namespace tandor::test
