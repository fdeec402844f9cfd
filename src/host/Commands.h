#pragma once

#include <expected>

#include "host/Configuration.h"
#include "host/Failure.h"
#include "host/Options.h"
#include "host/Output.h"

namespace tandor::host {

[[nodiscard]] Outcome runCommand(const Options& options, Output& output);
[[nodiscard]] Outcome startCommand(const Options& options, Output& output);
[[nodiscard]] Outcome stopCommand(const Options& options, Output& output);
[[nodiscard]] Outcome updateCommand(const Options& options, Output& output);
[[nodiscard]] Outcome sleepCommand(const Options& options, Output& output);
[[nodiscard]] Outcome wakeCommand(const Options& options, Output& output);
[[nodiscard]] Outcome statusCommand(const Options& options, Output& output);
[[nodiscard]] Outcome flowsCommand(const Options& options, Output& output);
[[nodiscard]] Outcome appsCommand(const Options& options, Output& output);
[[nodiscard]] Outcome doctorCommand(const Options& options, Output& output);
[[nodiscard]] Outcome demoCommand(const Options& options, Output& output);
[[nodiscard]] Outcome completionsCommand(const Options& options, Output& output);

/// The configuration that a start takes: the options over the configuration file, the default one
/// if it is there. Shows what the applications were resolved to.
[[nodiscard]] std::expected<Configuration, Failure> configurationToStart(const Options& options,
                                                                         Output& output);
[[nodiscard]] nlohmann::json describeJSON(const Configuration& configuration);

}  // namespace tandor::host
