#pragma once

#include <chrono>
#include <expected>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "platform/linux/FileDescriptor.h"

namespace tandor::host {

struct Pipe {
  FileDescriptor reading;
  FileDescriptor writing;
};
[[nodiscard]] std::optional<Pipe> makePipe();

/// A child of this process, in a process group of its own so that a Ctrl-C reaches this process
/// alone. It is told to end (SIGTERM) when this process ends in whatever way. One that is dropped
/// while it runs is killed.
class ChildProcess {
 public:
  /// Where standard output and standard error go; -1 for nowhere. Standard input is empty.
  struct Streams {
    int output = -1;
    int errors = -1;
  };

  /// Runs the program at the path `arguments[0]`. Fails with the system's error number.
  [[nodiscard]] static std::expected<ChildProcess, int> start(
      const std::vector<std::string>& arguments, Streams streams);

  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ChildProcess(ChildProcess&&) noexcept = default;
  ChildProcess& operator=(ChildProcess&&) noexcept = default;
  ~ChildProcess();

  [[nodiscard]] pid_t pid() const noexcept { return pid_; }
  /// Becomes readable when the child has ended.
  [[nodiscard]] int descriptor() const noexcept { return process_.get(); }

  void send(int signal) const;
  /// How the child ended: its exit status, 128 + signal when it was killed. Absent when it still
  /// runs after `limit`.
  [[nodiscard]] std::optional<int> wait(std::chrono::milliseconds limit);

 private:
  ChildProcess(pid_t pid, FileDescriptor process) noexcept
      : pid_(pid), process_(std::move(process)) {}

  pid_t pid_;
  FileDescriptor process_;
  std::optional<int> status_;
};

/// What the program called `arguments[0]`, found in PATH and the folders of system programs, writes
/// to its standard output; absent when it is not there, fails, or takes longer than a few seconds.
[[nodiscard]] std::optional<std::string> outputOf(std::vector<std::string> arguments);

/// The path of a program in PATH or in the folders of system programs.
[[nodiscard]] std::optional<std::string> findProgram(const std::string& name);

/// The path of this program's own executable; empty when the system does not tell.
[[nodiscard]] std::string ownExecutable();

}  // namespace tandor::host
