#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <thread>

namespace tandor::test {

/// How long anything may take before a test gives up: far more than a loaded machine needs.
inline constexpr std::chrono::seconds patience{20};

/// Asks again and again until `condition` holds; false when patience ends.
[[nodiscard]] inline bool eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

/// Open descriptors of this process; the one that reads the folder is counted each time.
[[nodiscard]] inline std::size_t openDescriptors() {
  return static_cast<std::size_t>(
      std::ranges::distance(std::filesystem::directory_iterator("/proc/self/fd")));
}

}  // namespace tandor::test
