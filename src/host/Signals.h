#pragma once

#include <csignal>
#include <functional>
#include <sys/signalfd.h>

#include "host/EventLoop.h"
#include "platform/linux/FileDescriptor.h"

namespace tandor::host {

/// Hears of requests to end (Ctrl-C, SIGTERM, a terminal that goes away) inside the loop, instead
/// of being ended by them. Where the caller ignores that its terminal goes away, so do we.
class EndSignals {
 public:
  EndSignals(EventLoop& loop, std::function<void()> handler) {
    sigset_t ours;
    ::sigemptyset(&ours);
    for (const int signal : {SIGINT, SIGTERM}) ::sigaddset(&ours, signal);
    struct sigaction hangUp{};
    ::sigaction(SIGHUP, nullptr, &hangUp);
    if (hangUp.sa_handler != SIG_IGN) ::sigaddset(&ours, SIGHUP);
    ::sigprocmask(SIG_BLOCK, &ours, &before_);
    descriptor_ = FileDescriptor(::signalfd(-1, &ours, SFD_CLOEXEC | SFD_NONBLOCK));
    watch_ = loop.whenReadable(descriptor_.get(), [this, handler = std::move(handler)] {
      signalfd_siginfo signal{};
      if (::read(descriptor_.get(), &signal, sizeof signal) == sizeof signal) handler();
    });
  }
  EndSignals(const EndSignals&) = delete;
  EndSignals& operator=(const EndSignals&) = delete;
  ~EndSignals() { ::sigprocmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_{};
  FileDescriptor descriptor_;
  EventLoop::Watch watch_;
};

}  // namespace tandor::host
