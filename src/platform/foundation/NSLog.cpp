#include "platform/foundation/NSLog.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <iterator>
#include <mutex>
#include <unistd.h>

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace tandor {
namespace {

std::atomic<NSLogSink> installedSink{nullptr};

/// A small number for the calling thread, in the order in which threads first logged.
unsigned threadNumber() {
  static std::atomic<unsigned> last{0};
  thread_local const unsigned number = ++last;
  return number;
}

/// The local date and time down to the second; formatting it is the dear part of a line.
std::string_view localTime(std::chrono::sys_seconds second) {
  thread_local std::chrono::sys_seconds cachedSecond{};
  thread_local fmt::memory_buffer cached;
  if (cached.size() == 0 || second != cachedSecond) {
    cached.clear();
    fmt::format_to(std::back_inserter(cached), "{:%Y-%m-%d %H:%M:%S}",
                   fmt::localtime(std::chrono::system_clock::to_time_t(second)));
    cachedSecond = second;
  }
  return {cached.data(), cached.size()};
}

void writeWhole(std::string_view line) noexcept {
  // One call writes a line whole in practice; the mutex keeps the rest of an interrupted line with
  // its beginning.
  static std::mutex mutex;
  const std::scoped_lock lock(mutex);
  while (!line.empty()) {
    const ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    line.remove_prefix(static_cast<std::size_t>(written));
  }
}

/// The lines of a thread that have not been written.
class Gathered {
 public:
  Gathered() = default;
  Gathered(const Gathered&) = delete;
  Gathered& operator=(const Gathered&) = delete;
  ~Gathered() { flush(); }
  void begin() noexcept { isGathering_ = true; }
  /// Adds a line: what `format` writes to the given place.
  void add(auto format) {
    constexpr std::size_t manyBytes = std::size_t{16} * 1024;
    format(std::back_inserter(lines_));
    if (!isGathering_ || lines_.size() >= manyBytes) flush();
  }
  void flush() noexcept {
    if (lines_.size() == 0) return;
    writeWhole({lines_.data(), lines_.size()});
    lines_.clear();
  }

 private:
  bool isGathering_ = false;
  fmt::memory_buffer lines_;
};
thread_local Gathered gathered;

}  // namespace

void gatherNSLog() noexcept {
  gathered.begin();
}

void flushNSLog() noexcept {
  gathered.flush();
}

void NSLog(std::string_view message) {
  if (const NSLogSink sink = installedSink.load(std::memory_order_acquire); sink != nullptr) {
    sink(message);
    return;
  }
  const auto now = std::chrono::system_clock::now();
  const auto second = std::chrono::floor<std::chrono::seconds>(now);
  const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(now - second).count();
  static const pid_t pid = ::getpid();
  gathered.add([&, process = pid](auto out) {
    fmt::format_to(out, "{}.{:06} tandor-provider[{}:{}] {}\n", localTime(second), micros, process,
                   threadNumber(), message);
  });
}

void setNSLogSink(NSLogSink sink) noexcept {
  installedSink.store(sink, std::memory_order_release);
}

}  // namespace tandor
