#include <csignal>

#include "host/CommandLine.h"
#include "host/Failure.h"
#include "host/Output.h"
#include "platform/linux/FileDescriptor.h"

int main(int count, char** arguments) {
  using namespace tandor::host;
  using tandor::openStandardDescriptors;
  if (!openStandardDescriptors()) return exitFailed;
  // Whoever stops reading what is printed must not keep a provider from being stopped in order.
  std::signal(SIGPIPE, SIG_IGN);
  const auto options = parseCommandLine(count, arguments);
  if (!options) return options.error();
  Output output(options->json);
  const Outcome outcome = options->command(*options, output);
  if (outcome) return *outcome;
  output.failure(outcome.error());
  return outcome.error().exitCode;
}
