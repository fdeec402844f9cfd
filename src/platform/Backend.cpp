#include "platform/Backend.h"

#include <atomic>
#include <cassert>

namespace tandor {
namespace {

std::atomic<PlatformBackend*> installedBackend{nullptr};

}  // namespace

PlatformBackend& PlatformBackend::installed() noexcept {
  PlatformBackend* backend = installedBackend.load(std::memory_order_acquire);
  assert(backend != nullptr);
  return *backend;
}

PlatformBackend* PlatformBackend::install(PlatformBackend* backend) noexcept {
  return installedBackend.exchange(backend, std::memory_order_acq_rel);
}

}  // namespace tandor
