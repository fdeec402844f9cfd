#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "platform/foundation/NSLog.h"
#include "tls/ClientHello.h"

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  tandor::setNSLogSink([](std::string_view) {});
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto block = std::make_unique<std::uint8_t[]>(size);
  std::copy_n(data, size, block.get());
  char untouched = '\0';
  char* name = &untouched;
  const std::int32_t code = tandor::parse_tls_header(block.get(), size, &name);
  require(code >= tandor::clientHelloMalformed && code != tandor::clientHelloNoResult);
  if (code < 0) {
    require(name == &untouched);
    return 0;
  }
  const auto length = static_cast<std::size_t>(code);
  // Before the name: record header, the fixed and the three sized fields of the hello, the lengths
  // of the extensions, the extension's header, the lengths of the list and of the name.
  require(size >= 58 && length <= size - 58);
  require(name[length] == '\0');
  // The name is a piece of the input up to its first zero byte, and zeros from there on.
  const std::size_t copied = std::strlen(name);
  require(std::search(data, data + size, name, name + copied,
                      [](std::uint8_t left, char right) {
                        return left == static_cast<std::uint8_t>(right);
                      }) != data + size ||
          copied == 0);
  require(std::all_of(name + copied, name + length, [](char byte) { return byte == '\0'; }));
  // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): the parser hands over malloc's memory
  std::free(name);
  return 0;
}
