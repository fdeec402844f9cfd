#include "platform/linux/OutboundPorts.h"

#include <algorithm>
#include <bitset>
#include <fstream>
#include <sstream>
#include <utility>

namespace tandor {
namespace {

/// An administrator may change the settings at any time, and nothing tells of it.
constexpr auto timeBetweenLooks = std::chrono::seconds(10);
/// The part of all ports that is in use from the beginning; fewer than the least are not worth it:
/// an application would soon find none left.
constexpr std::size_t partInUse = 16;
constexpr std::size_t leastPorts = std::size_t{16} * partInUse;
/// So many in a row are hardly ever missed while less than two thirds are in use.
constexpr unsigned missesBeforeGrowth = 8;
/// Each costs some microseconds, which everybody on the loop waits for.
constexpr unsigned mostMisses = 48;

std::string setting(const char* name) {
  std::ifstream file(std::string("/proc/sys/net/ipv4/") + name);
  std::string text;
  std::getline(file, text);
  return text;
}

using PortSet = std::bitset<std::size_t{UINT16_MAX} + 1>;

/// Of a list like "8080,9100-9200".
PortSet parsePorts(const std::string& text) {
  PortSet ports;
  std::istringstream list(text);
  for (std::string item; std::getline(list, item, ',');) {
    std::istringstream words(item);
    std::uint16_t first = 0;
    if (!(words >> first)) continue;
    std::uint16_t last = first;
    char dash = 0;
    if (words >> dash) words >> last;
    for (std::size_t port = first; port <= last; ++port) ports.set(port);
  }
  return ports;
}

}  // namespace

OutboundPorts::OutboundPorts() : random_(std::random_device{}()) {
  start_ = static_cast<std::uint32_t>(random_());
}

std::size_t OutboundPorts::leastWindow() const noexcept {
  return ports_.size() / partInUse;
}

void OutboundPorts::look() {
  std::string range = setting("ip_local_port_range");
  std::string reserved = setting("ip_local_reserved_ports");
  if (range == range_ && reserved == reserved_) return;
  range_ = std::move(range);
  reserved_ = std::move(reserved);

  ports_.clear();
  std::istringstream words(range_);
  std::uint16_t first = 0;
  std::uint16_t last = 0;
  if (words >> first >> last) {
    const PortSet taboo = parsePorts(reserved_);
    // Applications are given every second port from the first on, and the others when these are
    // used up.
    for (const std::size_t parity : {1U, 0U}) {
      const auto begin = static_cast<std::ptrdiff_t>(ports_.size());
      for (std::size_t port = first + parity; port <= last; port += 2)
        if (!taboo[port]) ports_.push_back(static_cast<std::uint16_t>(port));
      const auto count = static_cast<std::ptrdiff_t>(ports_.size()) - begin;
      if (count > 0) {
        const auto half = std::ranges::subrange(ports_.begin() + begin, ports_.end());
        std::ranges::rotate(half, half.begin() + static_cast<std::ptrdiff_t>(start_) % count);
      }
    }
  }
  if (ports_.size() < leastPorts) ports_.clear();
  window_ = leastWindow();
  turn_ = 0;
}

std::optional<std::uint16_t> OutboundPorts::choose(unsigned misses) {
  const auto now = Clock::now();
  const std::scoped_lock lock(mutex_);
  if (now >= nextLook_) {
    nextLook_ = now + timeBetweenLooks;
    look();
  }
  if (ports_.empty() || misses > mostMisses) return std::nullopt;

  const bool isInTurn = misses % missesBeforeGrowth == 0;
  if (misses > 0 && isInTurn && window_ < ports_.size()) {
    turn_ = window_;
    window_ = std::min(2 * window_, ports_.size());
    hasGrown_ = true;
  }
  // The neighbours of a port that is in use are, too: they were chosen in the same moment.
  if (!isInTurn) return ports_[random_() % window_];
  if (turn_ >= window_) {
    turn_ = 0;
    if (!std::exchange(hasGrown_, false)) window_ = std::max(window_ / 2, leastWindow());
  }
  return ports_[turn_++];
}

}  // namespace tandor
