#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/Settings.h"

namespace tandor::host {

enum class Command : std::uint8_t {
  run,
  start,
  stop,
  update,
  sleep,
  wake,
  status,
  flows,
  apps,
  doctor,
  demo,
  completions,
};

/// What the command line says.
struct Options {
  Command command = Command::status;
  std::optional<std::string> control;
  bool json = false;
  Settings settings;
  std::optional<std::string> configurationFile;
  bool watches = false;
  bool showsAll = false;
  std::string shell;
  std::vector<std::string> demoArguments;
};

}  // namespace tandor::host
