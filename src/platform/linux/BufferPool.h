#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "platform/foundation/Data.h"

namespace tandor {

class EpollLoop;

/// The read buffers of one loop. A buffer is borrowed only while bytes are in it: it returns when
/// the last Data that points into it goes, so an idle connection holds none.
class BufferPool {
 public:
  static constexpr std::size_t bufferSize = std::size_t{64} * 1024;

  class Buffer final : public DataStorage {
   public:
    explicit Buffer(EpollLoop& loop) : DataStorage(nullptr), loop_(loop) {
      setFirst(bytes_.data());
    }
    [[nodiscard]] std::span<std::uint8_t> room() noexcept { return bytes_; }

   private:
    void dispose() noexcept override;

    EpollLoop& loop_;
    std::array<std::uint8_t, bufferSize> bytes_;  // not cleared: only what was read is ever shown
  };

  explicit BufferPool(EpollLoop& loop) : loop_(loop) {}

  /// A buffer with no references yet; the first Data made of it owns it. On the loop's thread.
  [[nodiscard]] Buffer& borrow();

 private:
  friend class Buffer;
  static constexpr std::size_t maximumSpare = 16;

  EpollLoop& loop_;
  std::vector<std::unique_ptr<Buffer>> spare_;
};

}  // namespace tandor
