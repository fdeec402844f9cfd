#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "platform/linux/ControlServer.h"
#include "platform/linux/FlowRegistry.h"
#include "platform/linux/ServiceThread.h"

namespace tandor {

/// A flow as the control protocol shows it.
[[nodiscard]] nlohmann::json flowJSON(const FlowInfo& flow);

/// Sends flow events to the control clients that watch. Flows never wait for it: events that come
/// faster than they can be sent, or that a client does not read, are counted and dropped. Lives as
/// long as the process.
class FlowWatch {
 public:
  /// Both outlive the watch.
  FlowWatch(ServiceThread& service, FlowRegistry& registry) noexcept
      : service_(service), registry_(registry) {}
  FlowWatch(const FlowWatch&) = delete;
  FlowWatch& operator=(const FlowWatch&) = delete;
  ~FlowWatch() = default;

  /// Sends events to the client from now on, until it hangs up. On the service thread.
  void add(ControlServer::Reply client);
  /// Whether it gets them already. On the service thread.
  [[nodiscard]] bool isWatching(const ControlServer::Reply& client) const;

 private:
  struct Happening {
    FlowRegistry::Event event;
    FlowInfo flow;
  };
  struct Watcher {
    ControlServer::Reply client;
    std::uint64_t lost = 0;  // events since the last line that it got
  };

  void happened(FlowRegistry::Event event, const FlowInfo& flow);
  void deliver();
  void forgetThoseThatHungUp();
  void send(Watcher& watcher, const nlohmann::json& line);
  /// It misses so many events; it is told as soon as it has read most of what it has.
  void lose(Watcher& watcher, std::uint64_t events);
  void tellGaps();

  ServiceThread& service_;
  FlowRegistry& registry_;
  std::vector<Watcher> watchers_;  // service thread

  std::mutex mutex_;
  std::deque<Happening> happenings_;  // guarded by mutex_
  std::uint64_t lost_ = 0;            // guarded by mutex_: dropped before anybody could send them
  bool isDeliveryDue_ = false;        // guarded by mutex_
};

}  // namespace tandor
