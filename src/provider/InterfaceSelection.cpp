#include <algorithm>
#include <array>

#include "provider/TandorTransparentProxyProvider.h"
#include "support/Log.h"

namespace tandor {
namespace {

using InterfaceType = NWInterface::InterfaceType;

constexpr std::array preferredTypes = {InterfaceType::wiredEthernet, InterfaceType::wifi,
                                       InterfaceType::cellular};

/// The first interface of the most preferred type that the path has.
std::optional<NWInterface> preferredInterface(const NWPath& path) {
  for (const InterfaceType type : preferredTypes) {
    const auto choice = std::ranges::find(path.availableInterfaces, type, &NWInterface::type);
    if (choice != path.availableInterfaces.end()) return *choice;
  }
  return std::nullopt;
}

}  // namespace

std::optional<NWInterface> TandorTransparentProxyProvider::directlyInterface() const {
  const std::scoped_lock lock(guard_);
  return directlyInterface_;
}

void TandorTransparentProxyProvider::fetchInterface() {
  if (interfaceMonitor_->hasPathUpdateHandler()) return;
  interfaceMonitor_->setPathUpdateHandler([weakSelf = weakSelf()](const NWPath& path) {
    const auto choice = preferredInterface(path);
    if (choice) log("selected interface:" + choice->name);
    if (const auto self = weakSelf.lock()) {
      const std::scoped_lock lock(self->guard_);
      self->directlyInterface_ = choice;
    }
  });
  interfaceMonitor_->start(GlobalQueue::shared());
}

}  // namespace tandor
