#include "micro/Allocations.h"

#include <cstddef>

// The C library's own functions under their second names: every malloc and calloc of the program,
// operator new's among them, comes through here.
extern "C" {
void* __libc_malloc(std::size_t size);                     // NOLINT: its name
void* __libc_calloc(std::size_t count, std::size_t size);  // NOLINT: its name
}

namespace {

thread_local std::uint64_t count = 0;

}  // namespace

extern "C" void* malloc(std::size_t size) noexcept {
  ++count;
  return __libc_malloc(size);
}

extern "C" void* calloc(std::size_t number, std::size_t size) noexcept {
  ++count;
  return __libc_calloc(number, size);
}

namespace tandor::bench {

std::uint64_t allocations() noexcept {
  return count;
}

}  // namespace tandor::bench
