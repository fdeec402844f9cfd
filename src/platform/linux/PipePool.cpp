#include "platform/linux/PipePool.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

#include "platform/linux/EpollLoop.h"

namespace tandor {
namespace {

/// A page of a socket's buffer takes up a page of the pipe, however little of it is filled.
constexpr int capacity = 256 * 1024;

}  // namespace

PipePool::Pipe* PipePool::borrow() {
  if (!spare_.empty()) {
    Pipe* const pipe = spare_.back().release();
    spare_.pop_back();
    return pipe;
  }
  if (pipes_ >= maximumInUse) return nullptr;
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) return nullptr;
  ++pipes_;
  ::fcntl(ends[0], F_SETPIPE_SZ, capacity);  // the usual size does when it is refused
  return std::make_unique<Pipe>(loop_, FileDescriptor(ends[0]), FileDescriptor(ends[1])).release();
}

PipePool::Pipe* PipePool::holding(const Data& data) noexcept {
  DataStorage* const storage = data.storage();
  if (storage == nullptr || storage->isInMemory()) return nullptr;
  return static_cast<Pipe*>(storage);  // nothing else of this platform is elsewhere
}

PipePool::Pipe::~Pipe() {
  --loop_.pipes().pipes_;
}

void PipePool::Pipe::dispose() noexcept {
  std::unique_ptr<Pipe> self(this);
  if (!loop_.isCurrent()) return;  // the pool belongs to the loop's thread
  const bool isEmpty = bytes_ != nullptr || drained_ == filled_;
  auto& spare = loop_.pipes().spare_;
  if (!isEmpty || spare.size() >= maximumSpare) return;
  drained_ = filled_ = 0;
  isRestHeld_ = false;
  bytes_ = nullptr;
  setFirst(nullptr);
  spare.push_back(std::move(self));
}

ssize_t PipePool::Pipe::fill(int socket) noexcept {
  const std::scoped_lock lock(mutex_);
  const ssize_t count = ::splice(socket, nullptr, writing_.get(), nullptr, capacity,
                                 SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
  if (count > 0) filled_ = static_cast<std::size_t>(count);
  return count;
}

ssize_t PipePool::Pipe::drain(int socket, const Data& range) noexcept {
  const std::scoped_lock lock(mutex_);
  // One reference is the range's own. Whoever has another may look at any byte at any time.
  const std::uint32_t expected = isRestHeld_ ? 2 : 1;
  if (bytes_ != nullptr || range.offset() != drained_ || references() > expected) return mustBeRead;
  const ssize_t count = ::splice(reading_.get(), nullptr, socket, nullptr, range.count(),
                                 SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
  if (count > 0) drained_ += static_cast<std::size_t>(count);
  return count;
}

const std::uint8_t* PipePool::Pipe::bringIn() noexcept {
  const std::scoped_lock lock(mutex_);
  if (bytes_ == nullptr) {
    // Bytes keep their places, also when those before them have gone.
    bytes_ = std::make_unique_for_overwrite<std::uint8_t[]>(filled_);
    for (std::size_t place = drained_; place < filled_;) {
      // NOLINTNEXTLINE(clang-analyzer-unix.BlockInCriticalSection): the pipe does not block
      const ssize_t count = ::read(reading_.get(), bytes_.get() + place, filled_ - place);
      if (count <= 0 && errno != EINTR) break;  // cannot be: the pipe holds that many
      if (count > 0) place += static_cast<std::size_t>(count);
    }
    setFirst(bytes_.get());
  }
  return bytes_.get();
}

}  // namespace tandor
