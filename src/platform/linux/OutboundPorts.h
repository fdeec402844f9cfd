#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace tandor {

/// Chooses ports for the daemon's own streams that are bound to an interface. The kernel would: but
/// a port that it chooses at connecting may go to an application's stream towards the same endpoint
/// too, and for a socket that asks for any port it looks for one that nobody has at all, past all
/// that are in use, which takes longer with each flow.
///
/// Streams to different endpoints can have the same port, and an application's connect() is given
/// none that a socket has asked for. So they share few, of those that connect() tries last, and it
/// is more only while there is an endpoint that needs more. Any thread.
class OutboundPorts {
 public:
  OutboundPorts();

  /// A port to ask for with SO_REUSEADDR, from what the system sets aside for outgoing connections.
  /// `misses` were chosen for the same stream before and could not be had: because of an
  /// application (EADDRINUSE) or of another stream to the same endpoint (EADDRNOTAVAIL). None when
  /// there is no better choice than the kernel's.
  [[nodiscard]] std::optional<std::uint16_t> choose(unsigned misses);

 private:
  using Clock = std::chrono::steady_clock;

  void look();
  [[nodiscard]] std::size_t leastWindow() const noexcept;

  std::mutex mutex_;  // guards all below
  std::minstd_rand random_;
  std::uint32_t start_;
  Clock::time_point nextLook_;
  std::string range_;
  std::string reserved_;
  std::vector<std::uint16_t> ports_;  // the first `window_` are in use, in turn
  std::size_t window_ = 0;
  std::size_t turn_ = 0;
  bool hasGrown_ = false;  // in this round of turns
};

}  // namespace tandor
