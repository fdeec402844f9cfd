#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "platform/foundation/Data.h"

namespace tandor {

/// Where the first flights of one loop's flows wait for their tunnels. There may be thousands at
/// once, and the flows that they belong to live much longer: on the heap each would leave a hole
/// among these. Here they are packed into blocks that go back to the system whole.
class FlightPool {
 public:
  /// A copy of `bytes`, which may outlive the pool and go on any thread. On the loop's thread.
  [[nodiscard]] Data copy(std::span<const std::uint8_t> bytes);

 private:
  static constexpr std::size_t blockSize = std::size_t{64} * 1024;
  /// Longer ones are rare; they would leave the rest of a block unused.
  static constexpr std::size_t longestPacked = blockSize / 16;

  struct Unmap {
    void operator()(std::uint8_t* memory) const noexcept;
  };

  class Block final : public DataStorage {
   public:
    /// Takes a mapping of blockSize bytes.
    explicit Block(std::uint8_t* memory) noexcept : DataStorage(memory), memory_(memory) {}

    [[nodiscard]] bool isShared() const noexcept { return references() > 1; }
    [[nodiscard]] std::size_t room() const noexcept { return blockSize - used_; }
    void empty() noexcept { used_ = 0; }
    [[nodiscard]] Data append(std::span<const std::uint8_t> bytes);

   private:
    void dispose() noexcept override { const std::unique_ptr<Block> last(this); }

    std::unique_ptr<std::uint8_t, Unmap> memory_;
    std::size_t used_ = 0;
  };

  struct Holder {
    /// Whether the block has so much room; one of which nobody else has a part begins anew.
    [[nodiscard]] bool makesRoom(std::size_t count) noexcept;

    Data reference;  // keeps
    Block* block = nullptr;
  };

  /// Lets the current block be one with room for so many bytes, if the system has memory.
  void makeRoom(std::size_t count);

  Holder current_;
  Holder last_;  // the one before: mostly free again when the current one is full
};

}  // namespace tandor
