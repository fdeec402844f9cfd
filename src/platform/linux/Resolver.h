#pragma once

#include <chrono>
#include <expected>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/foundation/NSError.h"
#include "platform/linux/SocketAddress.h"

namespace tandor {

/// Resolves host names with the system's resolver, off every loop. Requests for a name that is
/// being resolved wait for that answer, and an answer serves for a few seconds: every flow of a
/// proxied application asks for the same proxy.
class Resolver {
 public:
  /// Addresses in the order of preference, with port 0; at least one.
  using Addresses = std::vector<SocketAddress>;
  using Answer = std::expected<Addresses, NSError>;
  using Completion = std::move_only_function<void(const Answer&)>;

  static constexpr std::chrono::seconds lifetime{5};

  /// Completes once, on a thread of the resolver's choosing, possibly before returning. Any thread.
  void resolve(const std::string& host, Completion completion);

 private:
  struct Entry {
    std::vector<Completion> waiting;
    Addresses addresses;
    std::chrono::steady_clock::time_point expiry;
    bool isResolving = false;
  };

  void answer(const std::string& host, const Answer& answer);

  std::mutex mutex_;
  std::map<std::string, Entry> entries_;  // guarded by mutex_
};

}  // namespace tandor
