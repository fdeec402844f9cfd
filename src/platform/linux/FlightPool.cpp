#include "platform/linux/FlightPool.h"

#include <algorithm>
#include <memory>
#include <sys/mman.h>
#include <utility>

namespace tandor {
namespace {

constexpr std::size_t blockSize = std::size_t{64} * 1024;
/// Longer ones are rare; they would leave the rest of a block unused.
constexpr std::size_t longestPacked = blockSize / 16;

}  // namespace

class FlightPool::Block final : public DataStorage {
 public:
  explicit Block(void* memory) noexcept
      : DataStorage(static_cast<std::uint8_t*>(memory)),
        memory_(static_cast<std::uint8_t*>(memory)) {}

  [[nodiscard]] bool isShared() const noexcept { return references() > 1; }
  [[nodiscard]] std::size_t room() const noexcept { return blockSize - used_; }
  void empty() noexcept { used_ = 0; }
  [[nodiscard]] Data append(std::span<const std::uint8_t> bytes) {
    std::ranges::copy(bytes, memory_.get() + used_);
    used_ += bytes.size();
    return {*this, used_ - bytes.size(), bytes.size()};
  }

 private:
  struct Unmap {
    void operator()(std::uint8_t* memory) const noexcept { ::munmap(memory, blockSize); }
  };

  void dispose() noexcept override { const std::unique_ptr<Block> last(this); }

  std::unique_ptr<std::uint8_t, Unmap> memory_;
  std::size_t used_ = 0;
};

bool FlightPool::Holder::canTake(std::size_t count) const noexcept {
  if (block == nullptr) return false;
  if (!block->isShared()) block->empty();
  return block->room() >= count;
}

void FlightPool::makeRoom(std::size_t count) {
  if (current_.canTake(count)) return;
  std::swap(current_, last_);
  if (current_.canTake(count)) return;
  current_ = {};
  void* const memory =
      ::mmap(nullptr, blockSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return;
  current_.block = std::make_unique<Block>(memory).release();
  current_.reference = Data(*current_.block, 0, 0);
}

Data FlightPool::copy(std::span<const std::uint8_t> bytes) {
  if (bytes.empty() || bytes.size() > longestPacked) return Data::copying(bytes);
  makeRoom(bytes.size());
  return current_.block != nullptr ? current_.block->append(bytes) : Data::copying(bytes);
}

}  // namespace tandor
