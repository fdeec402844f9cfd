#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "ipc/AppMessage.h"

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Data of exactly these bytes on the heap, so that any read past them is seen.
  const tandor::Data input = tandor::Data::copying({data, size});
  const auto message = tandor::readAppMessage(input);
  if (!message) {
    require(!message.error().empty());
    return 0;
  }
  // What was read is written back as it was; only bytes behind the content were ignored.
  const tandor::Data again = tandor::makeAppMessage(message->name, message->content);
  require(again.count() <= size);
  require(std::ranges::equal(again.bytes(), input.slice(0, again.count()).bytes()));
  // Nothing of it can be missing.
  require(!tandor::readAppMessage(input.slice(0, again.count() - 1)));
  return 0;
}
