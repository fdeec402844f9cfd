#pragma once

#include <cstddef>
#include <cstdint>
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
  class Block;
  struct Holder {
    [[nodiscard]] bool canTake(std::size_t count) const noexcept;

    Data reference;  // keeps
    Block* block = nullptr;
  };

  /// Lets the current block be one with room for so many bytes, if the system has memory.
  void makeRoom(std::size_t count);

  Holder current_;
  Holder last_;  // the one before: mostly free again when the current one is full
};

}  // namespace tandor
