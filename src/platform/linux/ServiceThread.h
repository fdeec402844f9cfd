#pragma once

#include <thread>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>

namespace tandor {

/// One Asio loop on a thread of its own, for everything that is not on the path of flows' bytes:
/// the control socket, signals, the watch on interfaces, timers.
class ServiceThread {
 public:
  ServiceThread() : work_(asio::make_work_guard(context_)) {
    thread_ = std::thread([this] { context_.run(); });
  }
  ServiceThread(const ServiceThread&) = delete;
  ServiceThread& operator=(const ServiceThread&) = delete;
  ~ServiceThread() {
    context_.stop();
    thread_.join();
  }

  [[nodiscard]] asio::io_context& context() noexcept { return context_; }
  [[nodiscard]] bool isCurrent() const noexcept {
    return std::this_thread::get_id() == thread_.get_id();
  }

 private:
  asio::io_context context_;
  asio::executor_work_guard<asio::io_context::executor_type> work_;
  std::thread thread_;
};

}  // namespace tandor
