#include "platform/foundation/Data.h"

#include <algorithm>
#include <cassert>
#include <cstring>

namespace tandor {
namespace {

class HeapStorage final : public DataStorage {
 public:
  explicit HeapStorage(std::span<const std::uint8_t> bytes)
      : DataStorage(nullptr), bytes_(std::make_unique_for_overwrite<std::uint8_t[]>(bytes.size())) {
    std::memcpy(bytes_.get(), bytes.data(), bytes.size());
    setFirst(bytes_.get());
  }

 private:
  void dispose() noexcept override { const std::unique_ptr<HeapStorage> last(this); }

  std::unique_ptr<std::uint8_t[]> bytes_;
};

}  // namespace

Data Data::copying(std::span<const std::uint8_t> bytes) {
  if (bytes.empty()) return {};
  auto storage = std::make_unique<HeapStorage>(bytes);
  return {*storage.release(), 0, bytes.size()};
}

Data Data::copying(std::string_view text) {
  // Any object may be read as unsigned bytes.
  return copying({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

std::string_view Data::characters() const noexcept {
  return {reinterpret_cast<const char*>(bytes().data()), count_};
}

Data Data::slice(std::size_t offset, std::size_t count) const noexcept {
  assert(offset <= count_ && count <= count_ - offset);
  Data part(*this);
  part.offset_ += offset;
  part.count_ = count;
  return part;
}

bool operator==(const Data& left, const Data& right) noexcept {
  return std::ranges::equal(left.bytes(), right.bytes());
}

}  // namespace tandor
