#include "platform/linux/RuleGuard.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <deque>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/rtnetlink.h>
#include <mutex>
#include <optional>
#include <string_view>
#include <sys/socket.h>
#include <system_error>
#include <utility>

#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <fmt/format.h>

#include "platform/dispatch/DispatchQueue.h"
#include "platform/foundation/NSLog.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/NetlinkDump.h"
#include "platform/linux/NetlinkSubscription.h"
#include "platform/linux/OlderTables.h"
#include "platform/linux/PacketRules.h"
#include "platform/linux/RoutingPolicy.h"

namespace tandor {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

/// How long a change by others may take, and the time between two looks: some change their own
/// rules all day.
constexpr auto settlingTime = 200ms;
constexpr auto shortestPause = 1s;
/// What could not be put back is tried again after this.
constexpr auto pauseAfterFailure = 10s;
/// The routing rule does not wait that long when another comes before it: what it is there for
/// meanwhile goes nowhere.
constexpr auto shortestMovePause = 20ms;
/// How often the older tables are asked whether they are as they were.
constexpr auto olderTablesInterval = 3s;
/// More often than this within the time, and it is a fight.
constexpr std::size_t mostRestorations = 5;
constexpr auto restorationsTime = 1min;

/// The number of the routing table that a route or a rule is about.
template <typename Header>
std::uint32_t tableOf(const nlmsghdr& message, std::uint16_t attributeType) {
  std::uint32_t table = 0;
  forEachAttribute(message, sizeof(Header), [&](const nlattr& attribute) {
    if (::mnl_attr_get_type(&attribute) == attributeType) table = ::mnl_attr_get_u32(&attribute);
  });
  return table;
}

/// Whether ours may be among what was taken away. With the last address of the loopback interface
/// goes the route over it, without a word.
bool mayConcernPolicy(const nlmsghdr& message) {
  constexpr int loopbackIndex = 1;
  switch (message.nlmsg_type) {
    case RTM_DELADDR:
      return static_cast<int>(
                 static_cast<const ifaddrmsg*>(::mnl_nlmsg_get_payload(&message))->ifa_index) ==
             loopbackIndex;
    case RTM_NEWLINK:  // it is up again: what could not be put back now can
      return static_cast<const ifinfomsg*>(::mnl_nlmsg_get_payload(&message))->ifi_index ==
             loopbackIndex;
    case RTM_DELROUTE:
      return tableOf<rtmsg>(message, RTA_TABLE) == routingTable;
    case RTM_DELRULE:
      return true;
    default:
      return false;
  }
}

/// Whether something of the tables that ours are in was taken away.
bool mayConcernRules(const nlmsghdr& message) {
  switch (NFNL_MSG_TYPE(message.nlmsg_type)) {
    case NFT_MSG_DELTABLE:
    case NFT_MSG_DELCHAIN:
    case NFT_MSG_DELRULE:
      break;
    default:
      return false;
  }
  if (static_cast<const nfgenmsg*>(::mnl_nlmsg_get_payload(&message))->nfgen_family != AF_INET)
    return false;
  // The three kinds name their table by the same attribute.
  static_assert(int{NFTA_RULE_TABLE} == int{NFTA_TABLE_NAME} &&
                int{NFTA_CHAIN_TABLE} == int{NFTA_TABLE_NAME});
  bool isOne = false;
  forEachAttribute(message, sizeof(nfgenmsg), [&](const nlattr& attribute) {
    if (::mnl_attr_get_type(&attribute) != NFTA_TABLE_NAME) return;
    const std::string_view table = ::mnl_attr_get_str(&attribute);
    isOne = table == "mangle" || table == "filter";
  });
  return isOne;
}

/// The process that made a change, when the message says so.
std::optional<std::string> changerIn(const nlmsghdr& message) {
  if (NFNL_MSG_TYPE(message.nlmsg_type) != NFT_MSG_NEWGEN) return std::nullopt;
  std::string name = "a process";
  std::uint32_t number = 0;
  forEachAttribute(message, sizeof(nfgenmsg), [&](const nlattr& attribute) {
    if (::mnl_attr_get_type(&attribute) == NFTA_GEN_PROC_NAME)
      name = ::mnl_attr_get_str(&attribute);
    if (::mnl_attr_get_type(&attribute) == NFTA_GEN_PROC_PID)
      number = ntohl(::mnl_attr_get_u32(&attribute));
  });
  return fmt::format("{}[{}]", name, number);
}

}  // namespace

/// The part that lives on the service thread, as long as its operations are pending.
class RuleGuard::Watch : public std::enable_shared_from_this<Watch> {
 public:
  Watch(ServiceThread& service, Restore restore, Owner& owner)
      : hasOlderTables_(arePacketRulesInOlderTables()),
        routing_(service.context()),
        filter_(service.context()),
        due_(service.context()),
        move_(service.context()),
        look_(service.context()),
        restore_(std::move(restore)),
        owner_(owner) {}

  void start() {
    follow(
        routing_,
        subscribeToNetlink(RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV4_RULE),
        &Watch::routingChanged);
    if (hasOlderTables_) {
      olderTables_ = olderTablesNow();
      lookAtOlderTables();
    } else {
      follow(filter_, subscribeToNetlink(1U << (NFNLGRP_NFTABLES - 1), NETLINK_NETFILTER),
             &Watch::filterChanged);
    }
    // Something may have been taken away between the installation and this.
    checkSoon(true);
  }

  void end() {
    {
      const std::scoped_lock lock(mutex_);
      isEnded_ = true;
    }
    asio::post(due_.get_executor(), [self = shared_from_this()] {
      asio::error_code ignored;
      self->routing_.close(ignored);
      self->filter_.close(ignored);
      self->due_.cancel();
      self->move_.cancel();
      self->look_.cancel();
    });
  }

 private:
  using Changed = void (Watch::*)(const nlmsghdr*);

  void follow(asio::posix::stream_descriptor& descriptor, FileDescriptor socket, Changed changed) {
    if (!socket.isOpen()) {
      NSLog("rules: the kernel does not tell who changes them; they are not watched");
      return;
    }
    descriptor.assign(socket.release());
    awaitChange(descriptor, changed);
  }

  void awaitChange(asio::posix::stream_descriptor& descriptor, Changed changed) {
    descriptor.async_wait(
        asio::posix::descriptor_base::wait_read,
        [self = shared_from_this(), &descriptor, changed](const asio::error_code& error) {
          if (error) return;
          self->read(descriptor.native_handle(), changed);
          self->awaitChange(descriptor, changed);
        });
  }

  /// One read a turn: whatever others do, the thread has more to do than to follow it.
  void read(int descriptor, Changed changed) {
    const ssize_t count = ::recv(descriptor, messages_.data(), messages_.size(), 0);
    if (count < 0 && errno == ENOBUFS) (this->*changed)(nullptr);
    int left = static_cast<int>(count);
    for (const auto* message = reinterpret_cast<const nlmsghdr*>(messages_.data());
         ::mnl_nlmsg_ok(message, left); message = ::mnl_nlmsg_next(message, &left))
      (this->*changed)(message);
  }

  // A message that was lost may have been any; it is null.

  void routingChanged(const nlmsghdr* message) {
    if (message == nullptr || mayConcernPolicy(*message)) checkSoon(false);
    if (message == nullptr || message->nlmsg_type == RTM_NEWRULE) moveSoon();
  }

  void filterChanged(const nlmsghdr* message) {
    if (message == nullptr || mayConcernRules(*message)) {
      isChangerSought_ = true;
      checkSoon(true);
    } else if (isChangerSought_) {
      // Who it was comes behind all that was done.
      if (auto changer = changerIn(*message)) {
        changer_ = std::move(*changer);
        isChangerSought_ = false;
      }
    }
  }

  void lookAtOlderTables() {
    look_.expires_after(olderTablesInterval);
    look_.async_wait([self = shared_from_this()](const asio::error_code& cancelled) {
      if (cancelled) return;
      auto now = olderTablesNow();
      if (now != self->olderTables_) {
        self->olderTables_ = std::move(now);
        self->checkSoon(true);
      }
      self->lookAtOlderTables();
    });
  }

  void checkSoon(bool withRules, Clock::duration pause = settlingTime) {
    isRulesCheckDue_ = isRulesCheckDue_ || withRules;
    if (std::exchange(isCheckDue_, true)) return;
    due_.expires_at(std::max(Clock::now() + pause, lastCheck_ + shortestPause));
    due_.async_wait([self = shared_from_this()](const asio::error_code& cancelled) {
      if (cancelled) return;
      self->isCheckDue_ = false;
      self->lastCheck_ = Clock::now();
      self->queue_->async(
          [self, withRules = std::exchange(self->isRulesCheckDue_, false),
           changer = std::exchange(self->changer_, {})] { self->check(withRules, changer); });
    });
  }

  void moveSoon() {
    if (std::exchange(isMoveDue_, true)) return;
    move_.expires_at(lastMove_ + shortestMovePause);
    move_.async_wait([self = shared_from_this()](const asio::error_code& cancelled) {
      if (cancelled) return;
      self->isMoveDue_ = false;
      self->lastMove_ = Clock::now();
      self->queue_->async([self] { self->moveRule(); });
    });
  }

  // On queue_.

  void moveRule() {
    const std::scoped_lock lock(mutex_);
    if (isEnded_) return;
    const auto policy = moveRoutingRule();
    if (!policy) {
      NSLog("rules: cannot move the routing rule: " +
            std::generic_category().message(policy.error()));
    } else if (policy->wasMoved) {
      NSLog("rules: others have added routing rules; ours has moved ahead of them");
    }
    if (policy) notePlace(*policy);
  }

  /// Says it when it has changed.
  void notePlace(const RoutingPolicyState& policy) {
    if (std::exchange(isAhead_, policy.isAhead) == policy.isAhead) return;
    NSLog(policy.isAhead ? "rules: the routing rule is ahead of all others"
                         : "rules: another routing rule has the preference 0, and ours cannot come "
                           "before it; packets of flows that it leads elsewhere are dropped");
  }

  void check(bool withRules, const std::string& changer) {
    // The end waits for what is being put back, and nothing is after the end.
    const std::scoped_lock lock(mutex_);
    if (isEnded_) return;
    std::string missing;
    std::string failure;
    if (const auto policy = installRoutingPolicy(); !policy) {
      // Its return is told.
      if (policy.error() != ENETDOWN)
        failure = "the routing rule: " + std::generic_category().message(policy.error());
    } else {
      notePlace(*policy);
      if (policy->wasMissing) missing = "the routing rule or its route";
    }
    if (withRules) {
      if (const auto rules = restore_(); !rules) {
        failure = rules.error();
      } else if (*rules) {
        missing = changer.empty() ? "the packet filter's rules"
                                  : "the packet filter's rules, by " + changer;
      }
    }
    if (missing.empty() && failure.empty()) return;
    if (hasTooMany()) {
      NSLog(fmt::format("rules: taken away more than {} times in a minute, last {}; giving up",
                        mostRestorations, missing.empty() ? failure : missing));
      isEnded_ = true;
      owner_.rulesLost();
    } else if (!failure.empty()) {
      NSLog("rules: cannot put back what was taken away: " + failure);
      asio::post(due_.get_executor(),
                 [self = shared_from_this()] { self->checkSoon(true, pauseAfterFailure); });
    } else {
      NSLog("rules: put back what was taken away: " + missing);
      owner_.rulesRestored();
    }
  }

  /// Counts one more.
  [[nodiscard]] bool hasTooMany() {
    const auto now = Clock::now();
    while (!restorations_.empty() && restorations_.front() < now - restorationsTime)
      restorations_.pop_front();
    restorations_.push_back(now);
    return restorations_.size() > mostRestorations;
  }

  const bool hasOlderTables_;
  asio::posix::stream_descriptor routing_;
  asio::posix::stream_descriptor filter_;
  asio::steady_timer due_;
  asio::steady_timer move_;
  asio::steady_timer look_;
  alignas(nlmsghdr) std::array<char, 32768> messages_{};
  OlderTables olderTables_;
  bool isCheckDue_ = false;
  bool isRulesCheckDue_ = false;
  bool isMoveDue_ = false;
  bool isChangerSought_ = false;
  std::string changer_;
  Clock::time_point lastCheck_;
  Clock::time_point lastMove_;

  /// The looks block for as long as other programs run.
  const std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::serial("tandor_rule_guard_queue");
  const Restore restore_;
  Owner& owner_;
  std::mutex mutex_;                            // held while something is put back
  bool isEnded_ = false;                        // guarded by mutex_, as is what follows
  bool isAhead_ = true;                         // the routing rule, of those of others
  std::deque<Clock::time_point> restorations_;  // of the last minute
};

RuleGuard::RuleGuard(ServiceThread& service, Restore restore, Owner& owner)
    : watch_(std::make_shared<Watch>(service, std::move(restore), owner)) {
  asio::post(service.context(), [watch = watch_] { watch->start(); });
}

RuleGuard::~RuleGuard() {
  watch_->end();
}

}  // namespace tandor
