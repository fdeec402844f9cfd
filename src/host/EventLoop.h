#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <utility>

namespace tandor::host {

/// Waits on descriptors and calls who watches them, on the one thread that a command has. While a
/// command waits for a reply, its status socket, its child and its signals are served, too.
class EventLoop {
 public:
  /// Ends with its owner; may end inside its own handler.
  class Watch {
   public:
    Watch() noexcept = default;
    Watch(Watch&& other) noexcept : loop_(std::exchange(other.loop_, nullptr)), key_(other.key_) {}
    Watch& operator=(Watch&& other) noexcept {
      std::swap(loop_, other.loop_);
      std::swap(key_, other.key_);
      return *this;
    }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
    ~Watch() {
      if (loop_ != nullptr) loop_->sources_.erase(key_);
    }

   private:
    friend class EventLoop;
    Watch(EventLoop& loop, std::uint64_t key) noexcept : loop_(&loop), key_(key) {}
    EventLoop* loop_ = nullptr;
    std::uint64_t key_ = 0;
  };

  EventLoop() = default;
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;
  ~EventLoop() = default;

  /// Calls `handler` again and again while the descriptor has something to read, or its other end
  /// has gone. The loop outlives the watch, the watch ends before the descriptor is closed.
  [[nodiscard]] Watch whenReadable(int descriptor, std::function<void()> handler);

  /// Serves the watches until `isDone` holds; false when `limit` has passed before.
  [[nodiscard]] bool runUntil(const std::function<bool()>& isDone,
                              std::optional<std::chrono::milliseconds> limit = std::nullopt);

 private:
  struct Source {
    int descriptor;
    std::shared_ptr<const std::function<void()>> handler;  // stays while it runs
  };
  void serveOnce(std::chrono::milliseconds limit);

  std::map<std::uint64_t, Source> sources_;
  std::uint64_t lastKey_ = 0;
};

}  // namespace tandor::host
