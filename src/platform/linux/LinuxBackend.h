#pragma once

#include <atomic>
#include <cstddef>
#include <expected>
#include <memory>
#include <vector>

#include "platform/Backend.h"
#include "platform/linux/EpollLoop.h"
#include "platform/linux/LocalAddressWatch.h"
#include "platform/linux/OutboundConnections.h"
#include "platform/linux/OutboundPorts.h"
#include "platform/linux/Resolver.h"
#include "platform/linux/ServiceThread.h"
#include "platform/linux/kernel/KernelPrograms.h"

namespace tandor {

/// The platform on Linux: one event loop a core for the bytes, one service thread for everything
/// that is not on their path.
class LinuxBackend final : public PlatformBackend {
 public:
  /// Starts the threads: `loopCount` loops, or as many as the process may use cores for 0. Fails
  /// with an error number.
  [[nodiscard]] static std::expected<std::unique_ptr<LinuxBackend>, int> make(
      std::size_t loopCount = 0);

  [[nodiscard]] std::shared_ptr<NWConnection> makeConnection(
      const NWEndpoint& endpoint, const NWParameters& parameters) override;
  [[nodiscard]] std::unique_ptr<NWPathMonitor> makePathMonitor() override;

  [[nodiscard]] const std::vector<std::unique_ptr<EpollLoop>>& loops() const noexcept {
    return loops_;
  }
  /// The loops in turn.
  [[nodiscard]] EpollLoop& nextLoop() noexcept;
  [[nodiscard]] ServiceThread& service() noexcept { return service_; }

  /// Our programs in the kernel; null where it has none for us.
  void setKernelPrograms(std::unique_ptr<KernelPrograms> programs) {
    kernelPrograms_ = std::move(programs);
  }
  [[nodiscard]] KernelPrograms* kernelPrograms() noexcept { return kernelPrograms_.get(); }

 private:
  LinuxBackend();

  ServiceThread service_;
  Resolver resolver_;
  OutboundPorts outboundPorts_;
  std::shared_ptr<OutboundConnections> outboundConnections_;
  LocalAddressWatch addressWatch_;
  std::vector<std::unique_ptr<EpollLoop>> loops_;
  std::atomic<std::size_t> turn_{0};
  std::unique_ptr<KernelPrograms> kernelPrograms_;
};

}  // namespace tandor
