#include "platform/linux/OutboundConnections.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <map>
#include <memory>
#include <net/if.h>
#include <netinet/in.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <utility>
#include <vector>

#include "platform/linux/SocketAddress.h"
#include "platform/linux/SocketConnection.h"

namespace tandor {
namespace {

/// Whether a socket can still get to its address, which many have in common.
class LocalAddresses {
 public:
  [[nodiscard]] bool isLost(int descriptor) {
    std::array<char, IFNAMSIZ> interface{};
    socklen_t length = interface.size();
    if (::getsockopt(descriptor, SOL_SOCKET, SO_BINDTODEVICE, interface.data(), &length) != 0)
      return errno == ENODEV;
    sockaddr_in6 local{};
    socklen_t localLength = sizeof local;
    if (::getsockname(descriptor, reinterpret_cast<sockaddr*>(&local), &localLength) != 0)
      return false;
    SocketAddress address(reinterpret_cast<const sockaddr&>(local), localLength);
    address.setPort(0);
    const std::string_view bytes(reinterpret_cast<const char*>(&address.get()), address.length());
    const auto [entry, isNew] =
        isLost_.try_emplace(std::string(interface.data()) + '/' + std::string(bytes));
    if (isNew) entry->second = !canBeBound(address, interface.data());
    return entry->second;
  }

 private:
  /// Asks in this way because an address may be ours by a route alone, and differ with the
  /// interface.
  static bool canBeBound(const SocketAddress& address, std::string_view interface) {
    const FileDescriptor probe(::socket(address.family(), SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!interface.empty()) {
      ::setsockopt(probe.get(), SOL_SOCKET, SO_BINDTODEVICE, interface.data(),
                   static_cast<socklen_t>(interface.size()));
    }
    return ::bind(probe.get(), &address.get(), address.length()) == 0 || errno != EADDRNOTAVAIL;
  }

  std::map<std::string, bool> isLost_;
};

/// A loop's connections, some at a time: others have their turn between them.
class Look {
 public:
  using Connections = std::vector<std::shared_ptr<SocketConnection>>;
  explicit Look(Connections connections) : connections_(std::move(connections)) {}

  static void continueOn(EpollLoop& loop, std::shared_ptr<Look> look) {
    loop.post([&loop, look = std::move(look)]() mutable {
      constexpr std::size_t atOnce = 256;
      auto& left = look->connections_;
      for (std::size_t count = std::min(atOnce, left.size()); count > 0; --count) {
        const int descriptor = left.back()->descriptor();
        if (descriptor >= 0 && look->addresses_.isLost(descriptor)) {
          // The peer can still be told while there is a way from an address that is not ours.
          const int on = 1;
          ::setsockopt(descriptor, SOL_IP, IP_TRANSPARENT, &on, sizeof on);
          left.back()->fail(ENETDOWN);
        }
        left.pop_back();
      }
      if (!left.empty()) continueOn(loop, std::move(look));
    });
  }

 private:
  Connections connections_;
  LocalAddresses addresses_;
};

}  // namespace

void OutboundConnections::add(SocketConnection& connection) {
  const std::scoped_lock lock(mutex_);
  connection.next_ = first_;
  if (first_ != nullptr) first_->previous_ = &connection;
  first_ = &connection;
  connection.connections_ = this;
}

void OutboundConnections::remove(SocketConnection& connection) noexcept {
  const std::scoped_lock lock(mutex_);
  (connection.previous_ != nullptr ? connection.previous_->next_ : first_) = connection.next_;
  if (connection.next_ != nullptr) connection.next_->previous_ = connection.previous_;
}

void OutboundConnections::failLost() const {
  std::map<EpollLoop*, Look::Connections> connections;
  {
    const std::scoped_lock lock(mutex_);
    for (const SocketConnection* connection = first_; connection != nullptr;
         connection = connection->next_) {
      // One that nobody refers to any more is on its way out.
      if (auto alive = std::static_pointer_cast<SocketConnection>(connection->self()))
        connections[connection->residence()].push_back(std::move(alive));
    }
  }
  for (auto& [loop, those] : connections)
    Look::continueOn(*loop, std::make_shared<Look>(std::move(those)));
}

}  // namespace tandor
