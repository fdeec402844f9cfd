#include <csignal>
#include <map>

#include "host/CommandLine.h"
#include "host/Commands.h"

namespace tandor::host {
namespace {

Outcome printCompletionsCommand(const Options& options, Output& output) {
  Output text(/*isJSON=*/false);
  text.line(completionsFor(options.shell));
  static_cast<void>(output);
  return exitDone;
}

int perform(const Options& options) {
  static const std::map<Command, Outcome (*)(const Options&, Output&)> commands = {
      {Command::run, runCommand},       {Command::start, startCommand},
      {Command::stop, stopCommand},     {Command::update, updateCommand},
      {Command::sleep, sleepCommand},   {Command::wake, wakeCommand},
      {Command::status, statusCommand}, {Command::flows, flowsCommand},
      {Command::apps, appsCommand},     {Command::doctor, doctorCommand},
      {Command::demo, demoCommand},     {Command::completions, printCompletionsCommand}};
  Output output(options.json);
  const Outcome outcome = commands.at(options.command)(options, output);
  if (outcome) return *outcome;
  output.failure(outcome.error());
  return outcome.error().exitCode;
}

}  // namespace
}  // namespace tandor::host

int main(int count, char** arguments) {
  // Whoever stops reading what is printed must not keep a provider from being stopped in order.
  std::signal(SIGPIPE, SIG_IGN);
  const auto options = tandor::host::parseCommandLine(count, arguments);
  return options ? tandor::host::perform(*options) : options.error();
}
