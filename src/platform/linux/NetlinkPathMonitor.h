#pragma once

#include <memory>

#include "platform/linux/ServiceThread.h"
#include "platform/network/NWPathMonitor.h"

namespace tandor {

/// Watches interfaces, addresses and routes over rtnetlink. A burst of changes is reported once,
/// after it has calmed down for a moment, and only if the path is another one.
class NetlinkPathMonitor final : public NWPathMonitor {
 public:
  /// `service` outlives the monitor.
  explicit NetlinkPathMonitor(ServiceThread& service) : service_(service) {}
  ~NetlinkPathMonitor() override;
  NetlinkPathMonitor(const NetlinkPathMonitor&) = delete;
  NetlinkPathMonitor& operator=(const NetlinkPathMonitor&) = delete;

  void start(GlobalQueue& queue) override;

 private:
  class Watch;

  ServiceThread& service_;
  std::shared_ptr<Watch> watch_;
};

}  // namespace tandor
