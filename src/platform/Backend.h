#pragma once

#include <memory>

#include "platform/network/NWConnection.h"
#include "platform/network/NWPathMonitor.h"

namespace tandor {

/// The one seam to the operating system: makes the objects that the platform's API only declares.
/// The Linux backend installs itself at start; tests install scripted ones.
class PlatformBackend {
 public:
  PlatformBackend() = default;
  PlatformBackend(const PlatformBackend&) = delete;
  PlatformBackend& operator=(const PlatformBackend&) = delete;
  virtual ~PlatformBackend() = default;

  /// The backend in force. One must have been installed.
  [[nodiscard]] static PlatformBackend& installed() noexcept;
  /// Puts `backend` in force and returns the earlier one, which may be null. `backend` stays the
  /// caller's and outlives its use. Called while no other thread uses the platform.
  static PlatformBackend* install(PlatformBackend* backend) noexcept;

  [[nodiscard]] virtual std::shared_ptr<NWConnection> makeConnection(
      const NWEndpoint& endpoint, const NWParameters& parameters) = 0;
  [[nodiscard]] virtual std::unique_ptr<NWPathMonitor> makePathMonitor() = 0;
};

}  // namespace tandor
