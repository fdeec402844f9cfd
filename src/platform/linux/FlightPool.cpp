#include "platform/linux/FlightPool.h"

#include <cstring>
#include <sys/mman.h>
#include <utility>

namespace tandor {

void FlightPool::Unmap::operator()(std::uint8_t* memory) const noexcept {
  ::munmap(memory, blockSize);
}

Data FlightPool::Block::append(std::span<const std::uint8_t> bytes) {
  std::memcpy(memory_.get() + used_, bytes.data(), bytes.size());
  used_ += bytes.size();
  return {*this, used_ - bytes.size(), bytes.size()};
}

bool FlightPool::Holder::makesRoom(std::size_t count) noexcept {
  if (block == nullptr) return false;
  if (!block->isShared()) block->empty();
  return block->room() >= count;
}

void FlightPool::makeRoom(std::size_t count) {
  if (current_.makesRoom(count)) return;
  std::swap(current_, last_);
  if (current_.makesRoom(count)) return;
  current_ = {};
  void* const memory =
      ::mmap(nullptr, blockSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return;
  current_.block = std::make_unique<Block>(static_cast<std::uint8_t*>(memory)).release();
  current_.reference = Data(*current_.block, 0, 0);
}

Data FlightPool::copy(std::span<const std::uint8_t> bytes) {
  if (bytes.empty() || bytes.size() > longestPacked) return Data::copying(bytes);
  makeRoom(bytes.size());
  return current_.block != nullptr ? current_.block->append(bytes) : Data::copying(bytes);
}

}  // namespace tandor
