#include "platform/linux/BufferPool.h"

#include "platform/linux/EpollLoop.h"

namespace tandor {

BufferPool::Buffer& BufferPool::borrow() {
  if (spare_.empty()) return *std::make_unique<Buffer>(loop_).release();
  Buffer& buffer = *spare_.back().release();
  spare_.pop_back();
  return buffer;
}

void BufferPool::Buffer::dispose() noexcept {
  std::unique_ptr<Buffer> self(this);
  if (!loop_.isCurrent()) return;  // the pool belongs to the loop's thread
  auto& spare = loop_.buffers().spare_;
  if (spare.size() < maximumSpare) spare.push_back(std::move(self));
}

}  // namespace tandor
