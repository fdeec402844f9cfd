#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tandor::load {

using Clock = std::chrono::steady_clock;

/// What happens between two moments: time, bytes, and whose CPU time.
class Measurement {
 public:
  /// `processes` are watched besides this one.
  explicit Measurement(std::vector<pid_t> processes) : processes_(std::move(processes)) {}
  void begin(std::uint64_t bytes = 0) { begin_ = now(bytes); }
  void end(std::uint64_t bytes = 0) { end_ = now(bytes); }
  [[nodiscard]] double seconds() const;
  /// Members of a JSON object: seconds, bytes, CPU time of this process, ticks of the watched ones
  /// and busy ticks of each CPU.
  [[nodiscard]] std::string members() const;

 private:
  struct Moment {
    Clock::time_point time;
    std::uint64_t bytes = 0;
    double ownSeconds = 0;
    std::vector<std::uint64_t> processTicks;
    std::vector<std::uint64_t> cpuTicks;
  };
  [[nodiscard]] Moment now(std::uint64_t bytes) const;

  std::vector<pid_t> processes_;
  Moment begin_;
  Moment end_;
};

/// Durations, of which all are kept.
class Samples {
 public:
  void add(Clock::duration duration) { all_.push_back(static_cast<float>(duration.count())); }
  /// Members of a JSON object: how many, and percentiles in microseconds.
  [[nodiscard]] std::string members(const std::string& name);

 private:
  std::vector<float> all_;  // nanoseconds
};

}  // namespace tandor::load
