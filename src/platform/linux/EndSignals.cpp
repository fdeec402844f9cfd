#include "platform/linux/EndSignals.h"

#include <csignal>

namespace tandor {
namespace {

sigset_t endSignalSet() {
  sigset_t set;
  ::sigemptyset(&set);
  for (const int signal : endSignals()) ::sigaddset(&set, signal);
  return set;
}

}  // namespace

std::vector<int> endSignals() {
  std::vector<int> signals = {SIGTERM, SIGINT};
  for (const int signal : {SIGHUP, SIGQUIT}) {
    struct sigaction current{};
    if (::sigaction(signal, nullptr, &current) == 0 && current.sa_handler != SIG_IGN)
      signals.push_back(signal);
  }
  return signals;
}

void holdEndSignals() {
  // A reader of the log that has gone, a full log file, and what tells other daemons to do things.
  for (const int signal : {SIGPIPE, SIGXFSZ, SIGUSR1, SIGUSR2}) std::signal(signal, SIG_IGN);
  const sigset_t set = endSignalSet();
  ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void admitEndSignals() {
  // Some have their handlers by now, so all of them.
  sigset_t set;
  ::sigfillset(&set);
  ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

}  // namespace tandor
