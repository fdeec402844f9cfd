#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/linux/FileDescriptor.h"
#include "platform/linux/FlowAnswers.h"
#include "platform/linux/application/Connector.h"
#include "platform/linux/kernel/ProgramTypes.h"

struct bpf_object;

namespace tandor {

/// The daemon's programs in the kernel. For the packet filter they tell which packets belong to
/// flows that have their answer, without the cost of tracking every connection of the machine. And
/// they note which process connects which TCP socket, at the moment it does: the quick way from a
/// socket to its process, however many of either there are. They change nothing. A kernel that
/// cannot have them is served by connection tracking and by looking into processes.
class KernelPrograms final : public FlowAnswers {
 public:
  /// Brings the programs into the kernel, where they rest. While the process has all its privileges
  /// and is in its network namespace. `mostFlows` TCP and UDP flows can be taken at once. Null when
  /// the kernel does not take them.
  [[nodiscard]] static std::unique_ptr<KernelPrograms> load(std::size_t mostFlows);
  ~KernelPrograms() override;

  /// Gives the packet filter's programs names in the file system, in the folder that is returned;
  /// one for each network namespace. They stay until retract(). Absent when that is not
  /// possible.
  [[nodiscard]] std::optional<std::string> publish() const;
  /// Takes away the names that this or an earlier process has given in this network namespace.
  static void retract() noexcept;

  /// Lets them see what sockets do, until the returned descriptor is closed; it is not open when
  /// that is not possible.
  [[nodiscard]] FileDescriptor watch() const;

  /// Who connected the TCP flow that the packet filter asks about now; absent when that was not
  /// seen. Costs no system call. Any thread.
  [[nodiscard]] std::optional<Connector> connectorOf(const FlowKey& flow) const noexcept;

  void setTaken(const FlowKey& flow, std::uint64_t cookie, std::uint64_t datagrams) override;
  void setLeft(const FlowKey& flow, std::uint64_t cookie, std::uint64_t datagrams) override;
  void forget(const FlowKey& flow) override;

 private:
  struct Free {
    void operator()(bpf_object* object) const noexcept;
    void operator()(AskedFlow* flows) const noexcept;
  };

  KernelPrograms(std::unique_ptr<bpf_object, Free> object, AskedFlow* askedFlows) noexcept;

  std::unique_ptr<bpf_object, Free> object_;
  const int takenFlows_;
  const int leftFlows_;
  std::unique_ptr<AskedFlow, Free> askedFlows_;  // the kernel's own, to read
};

}  // namespace tandor
