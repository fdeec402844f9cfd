#pragma once

#include <mutex>
#include <utility>

#include <gtest/gtest.h>

namespace tandor::test {

/// The completion of an operation that may be under way once at a time. Any thread.
template <typename Completion>
class Pending {
 public:
  void put(Completion completion) {
    const std::scoped_lock lock(mutex_);
    EXPECT_FALSE(completion_) << "begun again before it completed";
    completion_ = std::move(completion);
  }

  /// Null when nothing is under way.
  [[nodiscard]] Completion take() {
    const std::scoped_lock lock(mutex_);
    return std::exchange(completion_, nullptr);
  }

  /// False when nothing is under way.
  template <typename... Arguments>
  bool complete(Arguments&&... arguments) {
    Completion completion = take();
    if (!completion) return false;
    completion(std::forward<Arguments>(arguments)...);
    return true;
  }

 private:
  std::mutex mutex_;
  Completion completion_;  // guarded by mutex_
};

}  // namespace tandor::test
