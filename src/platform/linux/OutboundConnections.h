#pragma once

#include <mutex>

namespace tandor {

class SocketConnection;

/// The connections that are there. Any thread.
class OutboundConnections {
 public:
  OutboundConnections() = default;
  OutboundConnections(const OutboundConnections&) = delete;
  OutboundConnections& operator=(const OutboundConnections&) = delete;
  ~OutboundConnections() = default;

  /// A connection is added once, and removed before it is destroyed.
  void add(SocketConnection& connection);
  void remove(SocketConnection& connection) noexcept;

  /// Has those fail whose local address or interface is none of this machine's any more: the kernel
  /// would let them stand still without an end. Each on its loop, later.
  void failLost() const;

 private:
  mutable std::mutex mutex_;
  SocketConnection* first_ = nullptr;  // guarded by mutex_, as are the links
};

}  // namespace tandor
