#pragma once

#include <optional>
#include <string>

#include "host/Failure.h"
#include "host/Settings.h"

namespace tandor::host {

class Output;

/// What the command line says.
struct Options {
  Outcome (*command)(const Options& options, Output& output) = nullptr;
  std::optional<std::string> control;
  bool json = false;
  Settings settings;
  std::optional<std::string> configurationFile;
  bool watches = false;
  bool showsAll = false;
  std::string shell;
};

}  // namespace tandor::host
