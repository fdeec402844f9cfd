#pragma once

#include <functional>
#include <memory>

#include "platform/linux/ServiceThread.h"

namespace tandor {

/// Tells when an address or an interface of this machine has gone, or may have. A moment later:
/// what renews an address removes it and adds it again, and then it has not gone. Any thread.
class LocalAddressWatch {
 public:
  /// `onLoss` is called on the thread of `service`, which outlives the watch; it may be called once
  /// more when the watch has ended.
  LocalAddressWatch(ServiceThread& service, std::function<void()> onLoss);
  ~LocalAddressWatch();
  LocalAddressWatch(const LocalAddressWatch&) = delete;
  LocalAddressWatch& operator=(const LocalAddressWatch&) = delete;

 private:
  class Watch;
  ServiceThread& service_;
  std::shared_ptr<Watch> watch_;
};

}  // namespace tandor
