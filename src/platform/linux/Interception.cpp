#include "platform/linux/Interception.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <system_error>
#include <thread>
#include <utility>

#include <fmt/format.h>

#include "platform/foundation/NSLog.h"
#include "platform/linux/PacketQueue.h"
#include "platform/linux/Privileges.h"
#include "platform/linux/RoutingPolicy.h"

namespace tandor {
namespace {

using namespace std::chrono_literals;

/// How long the end waits for closed flows to deliver what they owe their applications.
constexpr auto lastBytesPatience = 1500ms;
constexpr auto lastBytesCheck = 5ms;

/// Runs `function` on the loop's thread and returns its result.
template <typename Function>
auto runOn(EpollLoop& loop, Function function) {
  std::promise<decltype(function())> result;
  loop.post([&] {
    if constexpr (std::is_void_v<decltype(function())>) {
      function();
      result.set_value();
    } else {
      result.set_value(function());
    }
  });
  return result.get_future().get();
}

/// Test runs name the namespace that they live in, which must stay as it is: a start there would
/// cut the very session that runs them.
bool isProtectedNamespace() {
  const char* protectedNamespace = std::getenv("TANDOR_PROTECTED_NETNS");
  if (protectedNamespace == nullptr) return false;
  std::error_code error;
  return std::filesystem::read_symlink("/proc/self/ns/net", error) == protectedNamespace;
}

std::string describe(std::string_view what, int error) {
  if (error == EPERM || error == EACCES)
    return fmt::format("{}: not permitted; tandor-provider needs root or CAP_NET_ADMIN", what);
  return fmt::format("{}: {}", what, std::generic_category().message(error));
}

/// Takes everything of ours away, whoever has put it there. By the owner of the packet queue.
std::expected<void, std::string> removeEverything() {
  auto removed = removePacketRules();
  removeRoutingPolicy();
  KernelPrograms::retract();
  if (auto forgotten = ConnectionTracking::forgetTaken();
      !forgotten && removed && forgotten.error() != EINVAL)
    return std::unexpected(describe("cannot clear connection tracking", forgotten.error()));
  return removed;
}

}  // namespace

std::expected<void, std::string> Interception::cleanUp() {
  // The queue says the same of an owner before us as of a missing privilege.
  if (!mayAdministerNetwork()) return std::unexpected(describe("cannot clean up", EPERM));
  const auto hold = PacketQueue::Hold::make(packetQueueNumber);
  // A kernel without queues has nobody either.
  if (hold || (hold.error() != EPERM && hold.error() != EBUSY)) return removeEverything();
  return std::unexpected(
      fmt::format("packet queue {} has an owner that lives, so nothing is removed: a running "
                  "tandor-provider takes its rules away itself, when it is stopped",
                  packetQueueNumber));
}

std::expected<std::unique_ptr<Interception>, std::string> Interception::install(
    LinuxBackend& backend, FlowRegistry& registry,
    std::shared_ptr<NETransparentProxyProvider> provider, RuleGuard::Owner& guarded) {
  if (isProtectedNamespace()) {
    return std::unexpected(
        "TANDOR_PROTECTED_NETNS names this network namespace: no interception here");
  }
  // The packet queue says the same of an owner before us as of a missing privilege.
  if (!mayAdministerNetwork()) return std::unexpected(describe("cannot intercept", EPERM));
  // Everything that answers is there before the first rule that asks. The queue comes first: it can
  // have one owner only, and the rules of a process that lives are not ours to clear.
  std::unique_ptr<Interception> interception(
      new Interception(registry));  // NOLINT(*-owning-memory): the constructor is private
  if (auto admitting = interception->admit(std::move(provider)); !admitting)
    return std::unexpected(admitting.error());
  if (auto clean = removeEverything(); !clean) return std::unexpected(clean.error());
  KernelPrograms* const programs = backend.kernelPrograms();
  const std::string programsFolder = interception->chooseMemory(programs);
  if (auto listening = interception->listen(backend); !listening)
    return std::unexpected(listening.error());
  runOn(*interception->loop_, [&] {
    interception->admission_->begin(*interception->answers_,
                                    programsFolder.empty() ? nullptr : programs);
  });
  if (auto routed = installRoutingPolicy(); !routed)
    return std::unexpected(describe("cannot add the routing rule", routed.error()));
  if (auto ruled = installPacketRules(programsFolder, interception->ports_); !ruled)
    return std::unexpected(ruled.error());
  interception->guard_ = std::make_unique<RuleGuard>(
      backend.service(),
      [programsFolder, ports = interception->ports_] {
        return restorePacketRules(programsFolder, ports);
      },
      guarded);
  return interception;
}

std::string Interception::chooseMemory(KernelPrograms* programs) {
  const auto folder = programs == nullptr ? std::nullopt : programs->publish();
  if (folder && canCallPrograms(*folder)) {
    watch_ = programs->watch();
    if (watch_.isOpen()) {
      answers_ = programs;
      return *folder;
    }
  }
  KernelPrograms::retract();
  NSLog(
      "interception: by connection tracking, which is slower: the kernel or its packet filter does "
      "not take the daemon's programs");
  return {};
}

std::expected<void, std::string> Interception::listen(LinuxBackend& backend) {
  for (const auto& loop : backend.loops()) {
    auto listener =
        runOn(*loop, [&] { return TransparentListener::make(*loop, ports_, flows_, *answers_); });
    if (!listener)
      return std::unexpected(describe("cannot listen transparently", listener.error()));
    ports_ = (*listener)->ports();
    listeners_.push_back(std::move(*listener));
  }
  return {};
}

std::expected<void, std::string> Interception::admit(
    std::shared_ptr<NETransparentProxyProvider> provider) {
  auto loop = EpollLoop::make("tandor-admit");
  if (!loop) return std::unexpected(describe("cannot start", loop.error()));
  loop_ = std::move(*loop);
  auto admission = runOn(
      *loop_, [&] { return Admission::make(*loop_, std::move(provider), flows_, registry_); });
  if (!admission) return std::unexpected(admission.error());
  admission_ = std::move(*admission);
  return {};
}

Interception::~Interception() {
  // Without the queue, what stands in the packet filter is another process's.
  if (admission_ == nullptr) return;
  // The provider takes no flow any more; those that it closed still find their way back until their
  // last bytes are delivered.
  endFlows();
  guard_ = nullptr;
  if (auto quiet = stopAsking(); !quiet) NSLog("interception: " + quiet.error());
  runOn(*loop_, [this] { admission_->leaveAll(); });
  if (auto clean = removeEverything(); !clean) NSLog("interception: " + clean.error());
  runOn(*loop_, [this] { admission_->end(); });
  for (const auto& listener : listeners_) runOn(*listener->residence(), [&] { listener->close(); });
  admission_ = nullptr;
  loop_ = nullptr;
}

void Interception::endFlows() const {
  const auto deadline = std::chrono::steady_clock::now() + lastBytesPatience;
  for (bool isLate = false; registry_.liveCount() > 0 && !isLate;) {
    isLate = std::chrono::steady_clock::now() >= deadline;
    for (const auto& listener : listeners_) {
      const EpollLoop& loop = *listener->residence();
      runOn(*listener->residence(), [&] {
        for (const auto& flow : registry_.flowsOf(loop)) flow->letGo(isLate);
      });
    }
    std::this_thread::sleep_for(lastBytesCheck);
  }
}

}  // namespace tandor
