#include "platform/foundation/NSLog.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <mutex>
#include <string>
#include <unistd.h>

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace tandor {
namespace {

std::atomic<NSLogSink> installedSink{nullptr};

/// Who logs: the process and a small number for the calling thread, in the order in which threads
/// first logged.
std::string_view origin() {
  static std::atomic<unsigned> last{0};
  thread_local const std::string text = fmt::format(" tandor-provider[{}:{}] ", ::getpid(), ++last);
  return text;
}

/// The local date and time down to the second; formatting it is the dear part of a line.
std::string_view localTime(std::chrono::sys_seconds second) {
  thread_local std::chrono::sys_seconds cachedSecond{};
  thread_local std::string cached;
  if (cached.empty() || second != cachedSecond) {
    cached = fmt::format("{:%Y-%m-%d %H:%M:%S}",
                         fmt::localtime(std::chrono::system_clock::to_time_t(second)));
    cachedSecond = second;
  }
  return cached;
}

/// The microseconds of a second, behind a point.
std::array<char, 7> fraction(std::int64_t micros) noexcept {
  std::array<char, 7> text{'.'};
  for (std::size_t index = text.size() - 1; index > 0; --index, micros /= 10)
    text[index] = static_cast<char>('0' + micros % 10);
  return text;
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
  /// Adds a line, which is given in pieces.
  void add(std::initializer_list<std::string_view> pieces) {
    constexpr std::size_t manyBytes = std::size_t{16} * 1024;
    for (const std::string_view piece : pieces) lines_ += piece;
    if (!isGathering_ || lines_.size() >= manyBytes) flush();
  }
  void flush() noexcept {
    if (lines_.empty()) return;
    writeWhole(lines_);
    lines_.clear();
  }

 private:
  bool isGathering_ = false;
  std::string lines_;
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
  const auto behindTheSecond = fraction(micros);
  gathered.add({localTime(second),
                {behindTheSecond.data(), behindTheSecond.size()},
                origin(),
                message,
                "\n"});
}

void setNSLogSink(NSLogSink sink) noexcept {
  installedSink.store(sink, std::memory_order_release);
}

}  // namespace tandor
