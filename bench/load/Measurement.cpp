#include "load/Measurement.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <sys/resource.h>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace tandor::load {
namespace {

/// User and system time of a process; 0 when it is no more.
std::uint64_t ticks(pid_t process) {
  std::ifstream file(fmt::format("/proc/{}/stat", process));
  std::string text;
  std::getline(file, text);
  // The name, in parentheses, may contain anything.
  std::istringstream fields(text.substr(std::min(text.rfind(')') + 1, text.size())));
  constexpr int behindName = 11;  // fields before user time
  std::string skipped;
  for (int index = 0; index < behindName; ++index) fields >> skipped;
  std::uint64_t user = 0;
  std::uint64_t system = 0;
  fields >> user >> system;
  return user + system;
}

/// Busy time of each CPU, time that the hypervisor took away included.
std::vector<std::uint64_t> busyTicks() {
  std::ifstream file("/proc/stat");
  std::vector<std::uint64_t> all;
  std::string line;
  while (std::getline(file, line) && line.starts_with("cpu")) {
    if (line.starts_with("cpu ")) continue;  // the sum
    std::istringstream fields(line);
    std::string name;
    std::uint64_t user = 0, nice = 0, system = 0, idle = 0, wait = 0, irq = 0, softirq = 0,
                  steal = 0;
    fields >> name >> user >> nice >> system >> idle >> wait >> irq >> softirq >> steal;
    all.push_back(user + nice + system + irq + softirq + steal);
  }
  return all;
}

double seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

}  // namespace

Measurement::Moment Measurement::now(std::uint64_t bytes) const {
  Moment moment;
  moment.time = Clock::now();
  moment.bytes = bytes;
  for (const pid_t process : processes_) moment.processTicks.push_back(ticks(process));
  moment.cpuTicks = busyTicks();
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  moment.ownSeconds = load::seconds(usage.ru_utime) + load::seconds(usage.ru_stime);
  return moment;
}

double Measurement::seconds() const {
  return std::chrono::duration<double>(end_.time - begin_.time).count();
}

std::string Measurement::members() const {
  std::vector<std::string> processes;
  processes.reserve(processes_.size());
  for (std::size_t index = 0; index < processes_.size(); ++index) {
    processes.push_back(fmt::format("\"{}\":{}", processes_[index],
                                    end_.processTicks[index] - begin_.processTicks[index]));
  }
  std::vector<std::uint64_t> cpus;
  cpus.reserve(end_.cpuTicks.size());
  for (std::size_t index = 0; index < end_.cpuTicks.size(); ++index)
    cpus.push_back(end_.cpuTicks[index] - begin_.cpuTicks[index]);
  return fmt::format(
      R"("seconds":{:.6f},"bytes":{},"own_seconds":{:.6f},"process_ticks":{{{}}},"cpu_ticks":[{}])",
      seconds(), end_.bytes - begin_.bytes, end_.ownSeconds - begin_.ownSeconds,
      fmt::join(processes, ","), fmt::join(cpus, ","));
}

std::string Samples::members(const std::string& name) {
  std::ranges::sort(all_);
  const auto percentile = [&](double part) {
    if (all_.empty()) return 0.0;
    const auto rank = static_cast<std::size_t>(part * static_cast<double>(all_.size() - 1));
    return static_cast<double>(all_[rank]) / 1e3;
  };
  return fmt::format(R"("{0}_count":{1},"{0}_p50":{2:.2f},"{0}_p99":{3:.2f})", name, all_.size(),
                     percentile(0.5), percentile(0.99));
}

}  // namespace tandor::load
