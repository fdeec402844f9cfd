#include "platform/foundation/UUID.h"

#include <algorithm>
#include <cstdlib>
#include <span>
#include <unistd.h>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace tandor {
namespace {

/// Random bytes drawn from the system in blocks: a flow costs no system call for its identifier.
class RandomBlock {
 public:
  void fill(std::span<std::uint8_t> target) {
    if (bytes_.size() - used_ < target.size()) refill();
    std::ranges::copy(std::span(bytes_).subspan(used_, target.size()), target.begin());
    // What was handed out is forgotten, so that no later reader of this memory learns it.
    std::ranges::fill(std::span(bytes_).subspan(used_, target.size()), std::uint8_t{0});
    used_ += target.size();
  }

 private:
  void refill() {
    if (::getentropy(bytes_.data(), bytes_.size()) != 0) std::abort();  // no randomness, no system
    used_ = 0;
  }

  std::array<std::uint8_t, 256> bytes_{};  // the most that one call gives
  std::size_t used_ = bytes_.size();
};

}  // namespace

UUID UUID::random() {
  thread_local RandomBlock block;
  UUID uuid;
  block.fill(uuid.bytes);
  uuid.bytes[6] = static_cast<std::uint8_t>((uuid.bytes[6] & 0x0F) | 0x40);  // version 4
  uuid.bytes[8] = static_cast<std::uint8_t>((uuid.bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
  return uuid;
}

std::string UUID::description() const {
  const std::span<const std::uint8_t> all(bytes);
  return fmt::format("{:02X}-{:02X}-{:02X}-{:02X}-{:02X}", fmt::join(all.subspan(0, 4), ""),
                     fmt::join(all.subspan(4, 2), ""), fmt::join(all.subspan(6, 2), ""),
                     fmt::join(all.subspan(8, 2), ""), fmt::join(all.subspan(10, 6), ""));
}

}  // namespace tandor
