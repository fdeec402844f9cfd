#include "platform/linux/LocalAddressWatch.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <utility>

#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <libmnl/libmnl.h>

#include "platform/foundation/NSLog.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/NetlinkSubscription.h"

namespace tandor {
namespace {

/// How long an address may be away.
constexpr auto settlingTime = std::chrono::milliseconds(200);
/// Then others have theirs; what is left makes the socket readable again.
constexpr int mostReadsInATurn = 64;

bool isLoss(const nlmsghdr& message) {
  // A bridge that loses a port says so with its own family.
  return message.nlmsg_type == RTM_DELADDR ||
         (message.nlmsg_type == RTM_DELLINK &&
          static_cast<const ifinfomsg*>(::mnl_nlmsg_get_payload(&message))->ifi_family ==
              AF_UNSPEC);
}

}  // namespace

/// The part that lives on the service thread, as long as its operations are pending.
class LocalAddressWatch::Watch : public std::enable_shared_from_this<Watch> {
 public:
  Watch(ServiceThread& service, std::function<void()> onLoss)
      : descriptor_(service.context()), settling_(service.context()), onLoss_(std::move(onLoss)) {}

  void start() {
    FileDescriptor socket =
        subscribeToNetlink(RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR);
    if (!socket.isOpen()) {
      NSLog("address watch: the kernel reports no changes of addresses");
      return;
    }
    descriptor_.assign(socket.release());
    awaitChange();
  }

  void end() {
    asio::error_code ignored;
    descriptor_.close(ignored);
    settling_.cancel();
  }

 private:
  void awaitChange() {
    descriptor_.async_wait(asio::posix::descriptor_base::wait_read,
                           [self = shared_from_this()](const asio::error_code& error) {
                             if (error) return;
                             if (self->readLosses()) self->settle();
                             self->awaitChange();
                           });
  }

  void settle() {
    if (std::exchange(isSettling_, true)) return;
    settling_.expires_after(settlingTime);
    settling_.async_wait([self = shared_from_this()](const asio::error_code& cancelled) {
      self->isSettling_ = false;
      if (!cancelled) self->onLoss_();
    });
  }

  /// Whether there are any among the changes; those that the kernel had no room for may have been.
  [[nodiscard]] bool readLosses() {
    bool hasLosses = false;
    alignas(nlmsghdr) std::array<char, 16384> messages;
    for (int round = 0; round < mostReadsInATurn; ++round) {
      const ssize_t count =
          ::recv(descriptor_.native_handle(), messages.data(), messages.size(), 0);
      if (count < 0 && errno == ENOBUFS) hasLosses = true;
      if (count < 0 && (errno == ENOBUFS || errno == EINTR)) continue;
      if (count <= 0) return hasLosses;
      auto left = static_cast<int>(count);
      for (const auto* message = reinterpret_cast<const nlmsghdr*>(messages.data());
           ::mnl_nlmsg_ok(message, left); message = ::mnl_nlmsg_next(message, &left))
        hasLosses = hasLosses || isLoss(*message);
    }
    return hasLosses;
  }

  asio::posix::stream_descriptor descriptor_;
  asio::steady_timer settling_;
  bool isSettling_ = false;
  const std::function<void()> onLoss_;
};

LocalAddressWatch::LocalAddressWatch(ServiceThread& service, std::function<void()> onLoss)
    : service_(service), watch_(std::make_shared<Watch>(service, std::move(onLoss))) {
  asio::post(service.context(), [watch = watch_] { watch->start(); });
}

LocalAddressWatch::~LocalAddressWatch() {
  asio::post(service_.context(), [watch = watch_] { watch->end(); });
}

}  // namespace tandor
