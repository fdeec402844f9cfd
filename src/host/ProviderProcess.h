#pragma once

#include <deque>
#include <expected>
#include <optional>
#include <string>

#include "host/ChildProcess.h"
#include "host/EventLoop.h"
#include "host/Failure.h"

namespace tandor::host {

/// The path of the provider's program: beside this one, in the folders of an installation, in PATH.
[[nodiscard]] std::optional<std::string> findProviderProgram();

/// A provider that this command started for itself.
class ProviderProcess {
 public:
  /// Starts it with its control socket at `controlPath`. What it logs is read inside the loop,
  /// which outlives it, and shown if `isLogShown`.
  [[nodiscard]] static std::expected<std::unique_ptr<ProviderProcess>, Failure> start(
      EventLoop& loop, const std::string& controlPath, bool isLogShown);

  ProviderProcess(const ProviderProcess&) = delete;
  ProviderProcess& operator=(const ProviderProcess&) = delete;
  ~ProviderProcess() = default;

  [[nodiscard]] bool hasEnded() const noexcept { return hasEnded_; }
  /// How it ended and what it said last, once it has.
  [[nodiscard]] Failure unexpectedEnd();
  /// Ends it in order; if it does not end, or has died, removes what it left in the kernel.
  [[nodiscard]] std::expected<void, Failure> end();

 private:
  ProviderProcess(EventLoop& loop, ChildProcess child, FileDescriptor log, std::string program,
                  bool isLogShown);
  void readLog();
  [[nodiscard]] std::expected<void, Failure> cleanUp() const;

  EventLoop& loop_;
  ChildProcess child_;
  FileDescriptor log_;
  std::string program_;
  bool isLogShown_;
  bool hasEnded_ = false;
  std::string partOfLine_;
  std::deque<std::string> lastLines_;
  EventLoop::Watch childWatch_;
  EventLoop::Watch logWatch_;
};

}  // namespace tandor::host
