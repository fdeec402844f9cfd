#pragma once

#include <expected>
#include <functional>
#include <memory>
#include <string>

#include "platform/linux/ServiceThread.h"

namespace tandor {

/// Keeps the packet filter's rules and the routing policy in force while others change theirs: a
/// firewall that is loaded anew or a network service that tidies up takes ours along, and every
/// flow would go past us in silence. What is missing is put back a moment later. Whoever takes it
/// away again and again is not fought: the guard gives up. A routing rule of others that comes
/// before ours is passed at once. It costs nothing while nothing changes.
class RuleGuard {
 public:
  /// Hears of it, on a thread of the guard's; must not wait for the guard's end.
  class Owner {
   public:
    Owner() = default;
    Owner(const Owner&) = delete;
    Owner& operator=(const Owner&) = delete;
    /// Something was missing and is back.
    virtual void rulesRestored() = 0;
    /// The guard has given up, and has said so in the log. Once, its last call.
    virtual void rulesLost() = 0;

   protected:
    ~Owner() = default;
  };

  /// Puts back what is missing of the packet filter's rules; the result is whether anything was.
  using Restore = std::function<std::expected<bool, std::string>()>;

  /// Once everything is in force. `service` and `owner` outlive the guard.
  RuleGuard(ServiceThread& service, Restore restore, Owner& owner);
  RuleGuard(const RuleGuard&) = delete;
  RuleGuard& operator=(const RuleGuard&) = delete;
  /// Waits until nothing is being put back, and nothing will be.
  ~RuleGuard();

 private:
  class Watch;
  std::shared_ptr<Watch> watch_;
};

}  // namespace tandor
