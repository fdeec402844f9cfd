#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "platform/dispatch/DispatchQueue.h"
#include "platform/network/NWInterface.h"

namespace tandor {

/// The machine's way out at one moment.
struct NWPath {
  /// Interfaces that are up and can carry a default route, best route first.
  std::vector<NWInterface> availableInterfaces;

  friend bool operator==(const NWPath&, const NWPath&) = default;
};

/// Watches the path over all interface types. Reports the current path once it has started and
/// again after every change, within a second. No report begins after destruction.
class NWPathMonitor {
 public:
  using PathUpdateHandler = std::move_only_function<void(const NWPath&)>;

  /// A new monitor of the installed platform, not yet started.
  [[nodiscard]] static std::unique_ptr<NWPathMonitor> make();

  NWPathMonitor() = default;
  NWPathMonitor(const NWPathMonitor&) = delete;
  NWPathMonitor& operator=(const NWPathMonitor&) = delete;
  virtual ~NWPathMonitor() = default;

  /// Set before start(); the handler runs on the queue given there, one call at a time.
  void setPathUpdateHandler(PathUpdateHandler handler) {
    pathUpdateHandler_ = std::make_shared<PathUpdateHandler>(std::move(handler));
  }
  [[nodiscard]] bool hasPathUpdateHandler() const noexcept { return pathUpdateHandler_ != nullptr; }

  /// Starts the watch once. The handler must be set.
  virtual void start(GlobalQueue& queue) = 0;

 protected:
  std::shared_ptr<PathUpdateHandler> pathUpdateHandler_;
};

}  // namespace tandor
