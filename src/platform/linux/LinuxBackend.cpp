#include "platform/linux/LinuxBackend.h"

#include <algorithm>
#include <sched.h>

#include <fmt/format.h>

#include "platform/linux/NetlinkPathMonitor.h"
#include "platform/linux/SocketConnection.h"

namespace tandor {
namespace {

std::size_t usableCores() noexcept {
  cpu_set_t set;
  if (::sched_getaffinity(0, sizeof set, &set) != 0) return 1;
  return static_cast<std::size_t>(std::max(CPU_COUNT(&set), 1));
}

}  // namespace

LinuxBackend::LinuxBackend()
    : outboundConnections_(std::make_shared<OutboundConnections>()),
      addressWatch_(service_, [connections = outboundConnections_] { connections->failLost(); }) {}

std::expected<std::unique_ptr<LinuxBackend>, int> LinuxBackend::make(std::size_t loopCount) {
  std::unique_ptr<LinuxBackend> backend(new LinuxBackend);  // NOLINT: the constructor is private
  if (loopCount == 0) loopCount = usableCores();
  for (std::size_t index = 0; index < loopCount; ++index) {
    auto loop = EpollLoop::make(fmt::format("tandor-loop-{}", index).c_str());
    if (!loop) return std::unexpected(loop.error());
    backend->loops_.push_back(std::move(*loop));
  }
  return backend;
}

std::shared_ptr<NWConnection> LinuxBackend::makeConnection(const NWEndpoint& endpoint,
                                                           const NWParameters& parameters) {
  return makeSocketConnection(
      endpoint, parameters,
      {.resolver = resolver_, .ports = outboundPorts_, .connections = *outboundConnections_},
      nextLoop());
}

std::unique_ptr<NWPathMonitor> LinuxBackend::makePathMonitor() {
  return std::make_unique<NetlinkPathMonitor>(service_);
}

EpollLoop& LinuxBackend::nextLoop() noexcept {
  return *loops_[turn_.fetch_add(1, std::memory_order_relaxed) % loops_.size()];
}

}  // namespace tandor
