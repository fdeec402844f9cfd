#include "platform/linux/NetlinkPathMonitor.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <linux/rtnetlink.h>
#include <optional>
#include <sys/socket.h>
#include <utility>

#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

#include "platform/foundation/NSLog.h"
#include "platform/linux/CurrentPath.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/NetlinkSubscription.h"

namespace tandor {
namespace {

/// How long a burst of changes may go on before the path is looked at again.
constexpr auto settlingTime = std::chrono::milliseconds(100);
/// How long until it is looked at again when that was not possible.
constexpr auto retryTime = std::chrono::seconds(1);

}  // namespace

/// The part that lives on the service thread, as long as its operations are pending.
class NetlinkPathMonitor::Watch : public std::enable_shared_from_this<Watch> {
 public:
  Watch(ServiceThread& service, std::shared_ptr<PathUpdateHandler> handler)
      : descriptor_(service.context()),
        settling_(service.context()),
        handler_(std::move(handler)) {}

  void start() {
    constexpr unsigned nextHops = 1U << (RTNLGRP_NEXTHOP - 1U);
    FileDescriptor socket =
        subscribeToNetlink(RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE | nextHops);
    if (socket.isOpen()) {
      descriptor_.assign(socket.release());
      awaitChange();
    } else {
      NSLog("path monitor: the kernel reports no changes of interfaces and routes");
    }
    look();
  }

  void end() {
    isEnded_ = true;
    asio::post(descriptor_.get_executor(), [self = shared_from_this()] {
      asio::error_code ignored;
      self->descriptor_.close(ignored);
      self->settling_.cancel();
    });
  }

 private:
  void awaitChange() {
    descriptor_.async_wait(asio::posix::descriptor_base::wait_read,
                           [self = shared_from_this()](const asio::error_code& error) {
                             if (error || self->isEnded_) return;
                             self->drain();
                             self->lookAfter(settlingTime);
                             self->awaitChange();
                           });
  }

  void lookAfter(std::chrono::milliseconds delay) {
    if (std::exchange(isSettling_, true)) return;
    settling_.expires_after(delay);
    settling_.async_wait([self = shared_from_this()](const asio::error_code& cancelled) {
      self->isSettling_ = false;
      if (!cancelled && !self->isEnded_) self->look();
    });
  }

  /// What the messages say does not matter: the path is read anew. Lost ones (ENOBUFS) are changes.
  /// What is left is announced again by the next wait.
  void drain() {
    constexpr int mostAtOnce = 256;
    std::array<char, 8192> messages{};
    for (int round = 0; round < mostAtOnce; ++round) {
      const ssize_t count =
          ::recv(descriptor_.native_handle(), messages.data(), messages.size(), 0);
      if (count == 0 || (count < 0 && errno != ENOBUFS && errno != EINTR)) return;
    }
  }

  void look() {
    const auto path = currentPath();
    if (!path) {
      // Not knowing is no news: for want of a descriptor, most likely, which passes.
      lookAfter(retryTime);
      return;
    }
    if (last_ == *path) return;
    last_ = *path;
    queue_->async([self = shared_from_this(), path = *path] {
      if (!self->isEnded_) (*self->handler_)(path);
    });
  }

  asio::posix::stream_descriptor descriptor_;
  asio::steady_timer settling_;
  bool isSettling_ = false;
  std::optional<NWPath> last_;
  const std::shared_ptr<PathUpdateHandler> handler_;
  std::atomic<bool> isEnded_{false};
  /// Keeps the reports in order on the shared background threads.
  const std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::serial("tandor_path_monitor_queue");
};

NetlinkPathMonitor::~NetlinkPathMonitor() {
  if (watch_ != nullptr) watch_->end();
}

void NetlinkPathMonitor::start(GlobalQueue& /*queue*/) {
  if (watch_ != nullptr) return;
  watch_ = std::make_shared<Watch>(service_, pathUpdateHandler_);
  asio::post(service_.context(), [watch = watch_] { watch->start(); });
}

}  // namespace tandor
