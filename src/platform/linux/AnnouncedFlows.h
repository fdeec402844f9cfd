#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>

#include "platform/linux/FileDescriptor.h"
#include "platform/linux/FlowKey.h"
#include "platform/linux/SocketTCPFlow.h"
#include "platform/linux/SocketUDPFlow.h"

namespace tandor {

/// Where the flows that admission took meet the sockets that the kernel makes for them. TCP flows
/// are here from their first packet until their connection is accepted, UDP flows as long as they
/// live. Any thread.
class AnnouncedFlows {
 public:
  void add(std::shared_ptr<SocketTCPFlow> flow);
  void add(std::shared_ptr<SocketUDPFlow> flow);
  [[nodiscard]] bool contains(const FlowKey& key) const;

  /// Takes the TCP flow that a connection was accepted for; null when none was announced.
  [[nodiscard]] std::shared_ptr<SocketTCPFlow> claim(const FlowKey& key);

  /// The UDP flow that a datagram belongs to, and whether this is its first, with which it has to
  /// be attached; null when there is none.
  struct Recipient {
    std::shared_ptr<SocketUDPFlow> flow;
    bool isFirst;
  };
  [[nodiscard]] Recipient recipient(const FlowKey& key);
  /// The UDP flow has been attached. Returns whether its application's socket went meanwhile.
  [[nodiscard]] bool attached(const FlowKey& key);
  /// Ends the UDP flow, when it is attached or as soon as it is.
  void end(const FlowKey& key);
  void remove(const FlowKey& key);

  /// Takes out the flows whose socket did not come in time.
  struct Overdue {
    std::vector<std::shared_ptr<SocketTCPFlow>> tcp;
    std::vector<std::shared_ptr<SocketUDPFlow>> udp;
  };
  [[nodiscard]] Overdue takeOverdue(std::chrono::steady_clock::duration patience);
  /// Whether any flow still waits for its socket.
  [[nodiscard]] bool isAnyAnnounced() const;

 private:
  using Clock = std::chrono::steady_clock;
  struct Connection {
    std::shared_ptr<SocketTCPFlow> flow;
    Clock::time_point since;
  };
  struct Datagrams {
    std::shared_ptr<SocketUDPFlow> announced;  // until the first datagram has come
    std::weak_ptr<SocketUDPFlow> flow;
    Clock::time_point since;
    bool isAttached = false;
    bool hasEnded = false;
  };

  mutable std::mutex mutex_;
  std::unordered_map<FlowKey, Connection> tcp_;  // guarded by mutex_
  std::unordered_map<FlowKey, Datagrams> udp_;   // guarded by mutex_
};

}  // namespace tandor
