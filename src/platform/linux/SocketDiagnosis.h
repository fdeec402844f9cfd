#pragma once

#include <cstdint>
#include <expected>
#include <memory>
#include <optional>
#include <span>
#include <sys/types.h>
#include <unordered_set>
#include <vector>

#include "platform/linux/FlowKey.h"

struct mnl_socket;

namespace tandor {

/// What the kernel tells of the socket that a flow starts from.
struct SocketFacts {
  ino_t inode = 0;              // 0: no process holds it
  std::uint64_t cookie = 0;     // never given twice
  std::uint64_t cgroup = 0;     // number in the unified hierarchy; 0: unknown
  std::uint32_t interface = 0;  // the one that it is bound to; 0: none
};

/// Asks the kernel for one socket by its addresses. Used by one thread; each question takes about a
/// microsecond.
class SocketDiagnosis {
 public:
  /// Fails with an error number.
  [[nodiscard]] static std::expected<SocketDiagnosis, int> make();

  /// The socket that `flow` starts from, as it leaves by the interface with the given index; absent
  /// when there is none (a raw socket, the kernel's own).
  [[nodiscard]] std::optional<SocketFacts> find(const FlowKey& flow, std::uint32_t interface);

  /// A UDP socket, and a flow that has started from it.
  struct UDPSocket {
    std::uint64_t cookie;
    FlowKey flow;
  };
  /// The cookies of those that are no more. Blocks for as long as it takes to list all sockets.
  /// Fails with an error number.
  [[nodiscard]] static std::expected<std::vector<std::uint64_t>, int> findGone(
      std::span<const UDPSocket> sockets);

  /// The cookies of all UDP sockets that there are now. Fails with an error number.
  [[nodiscard]] static std::expected<std::unordered_set<std::uint64_t>, int> udpSockets();

 private:
  using Socket = std::unique_ptr<mnl_socket, int (*)(mnl_socket*)>;
  explicit SocketDiagnosis(Socket socket) noexcept : socket_(std::move(socket)) {}

  Socket socket_;
  std::uint32_t sequence_ = 0;
};

}  // namespace tandor
