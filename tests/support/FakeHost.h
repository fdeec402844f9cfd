#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tandor::test {

/// How many descriptors the process has open.
[[nodiscard]] std::size_t openDescriptors();

/// A host application: listens on a Unix socket in a directory of its own, and serves one client
/// after the other on a thread of its own. Makes the process ignore SIGPIPE, as a provider does.
class FakeHost {
 public:
  enum class Manner : std::uint8_t {
    proper,              // greets, and reads all that comes
    terse,               // the same with greetings that are shorter than the client asks for
    silent,              // accepts and never writes
    closesAtOnce,        // closes right after accepting
    closesAfterGreeting  // closes after its first two bytes were acknowledged
  };

  /// `afterFirstPiece` runs when the beginning of a message was read; `pathLength` is what the path
  /// has at least.
  explicit FakeHost(Manner manner = Manner::proper, std::function<void()> afterFirstPiece = {},
                    std::size_t pathLength = 0);
  FakeHost(const FakeHost&) = delete;
  FakeHost& operator=(const FakeHost&) = delete;
  ~FakeHost();

  [[nodiscard]] const std::string& path() const noexcept { return path_; }
  /// What the next client sent behind the handshake until it closed; empty after five seconds.
  [[nodiscard]] std::vector<std::uint8_t> nextMessage();

 private:
  void serve();
  /// Whether the client went through with it.
  [[nodiscard]] bool shakeHands(int client) const;
  [[nodiscard]] std::vector<std::uint8_t> readToTheEnd(int client) const;

  const Manner manner_;
  const std::function<void()> afterFirstPiece_;
  std::string directory_;
  std::string path_;
  int listener_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::deque<std::vector<std::uint8_t>> messages_;  // guarded by mutex_
  std::jthread thread_;
};

}  // namespace tandor::test
