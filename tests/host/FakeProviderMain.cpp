// Stands in for tandor-provider beside a copy of tandor, and leaves the machine alone.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <span>
#include <string>
#include <string_view>
#include <unistd.h>

#include "host/FakeProvider.h"

int main(int count, char** values) {
  using tandor::host::test::FakeProvider;
  const std::span arguments(values, static_cast<std::size_t>(count));
  const char* manner = std::getenv("FAKE_MANNER");
  const std::string_view wanted = manner == nullptr ? "" : manner;
  if (count == 2 && arguments[1] == std::string_view("--cleanup")) {
    std::ofstream(std::getenv("FAKE_CLEANUP")) << "cleaned";
    return EXIT_SUCCESS;
  }
  if (wanted == "broken") {
    std::fputs("something is very wrong\n", stderr);
    return EXIT_FAILURE;
  }
  sigset_t ends;
  ::sigemptyset(&ends);
  ::sigaddset(&ends, SIGTERM);
  ::sigprocmask(SIG_BLOCK, &ends, nullptr);  // before the fake's thread inherits it
  FakeProvider::Manner settings;
  if (wanted == "fails") settings.startError = "the kernel lacks what is needed";
  const FakeProvider provider(arguments.back(), settings);
  if (wanted == "dies") {
    while (provider.requests("startProxy").empty()) ::usleep(1000);
    ::usleep(50'000);
    ::raise(SIGKILL);
  }
  int signal = 0;
  ::sigwait(&ends, &signal);
  return EXIT_SUCCESS;
}
