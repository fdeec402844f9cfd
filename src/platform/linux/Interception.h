#pragma once

#include <expected>
#include <memory>
#include <string>
#include <vector>

#include "platform/linux/Admission.h"
#include "platform/linux/AnnouncedFlows.h"
#include "platform/linux/ConnectionTracking.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/FlowRegistry.h"
#include "platform/linux/LinuxBackend.h"
#include "platform/linux/PacketRules.h"
#include "platform/linux/RuleGuard.h"
#include "platform/linux/TransparentListener.h"

namespace tandor {

/// The interception of this network namespace's new outgoing flows, for one provider. Exists while
/// it is in force; its destruction takes everything away again, so that every flow is the kernel's.
class Interception {
 public:
  /// Puts it in force, after clearing what a crashed process left. Blocks for some milliseconds.
  /// Fails with the words for the user. `backend`, `registry` and `guarded`, which hears of foreign
  /// changes of what is in force, outlive it.
  [[nodiscard]] static std::expected<std::unique_ptr<Interception>, std::string> install(
      LinuxBackend& backend, FlowRegistry& registry,
      std::shared_ptr<NETransparentProxyProvider> provider, RuleGuard::Owner& guarded);
  Interception(const Interception&) = delete;
  Interception& operator=(const Interception&) = delete;
  ~Interception();

  /// Takes away whatever a process without its end has left; of one that lives, nothing. Fails with
  /// the words for the user.
  [[nodiscard]] static std::expected<void, std::string> cleanUp();

 private:
  explicit Interception(FlowRegistry& registry) : registry_(registry) {}

  /// Decides what remembers the answers of flows; returns where the packet filter finds the
  /// programs that do, or nothing when connection tracking does.
  [[nodiscard]] std::string chooseMemory(KernelPrograms* programs);
  [[nodiscard]] std::expected<void, std::string> listen(LinuxBackend& backend);
  [[nodiscard]] std::expected<void, std::string> admit(
      std::shared_ptr<NETransparentProxyProvider> provider);
  void endFlows() const;

  FlowRegistry& registry_;
  const std::shared_ptr<AnnouncedFlows> flows_ = std::make_shared<AnnouncedFlows>();
  ConnectionTracking tracking_;
  FlowAnswers* answers_ = &tracking_;
  FileDescriptor watch_;  // of the programs in the kernel, when the answers are theirs
  std::vector<std::shared_ptr<TransparentListener>> listeners_;
  ListenerPorts ports_;              // of all of them
  std::unique_ptr<EpollLoop> loop_;  // of the admission
  std::shared_ptr<Admission> admission_;
  std::unique_ptr<RuleGuard> guard_;
};

}  // namespace tandor
