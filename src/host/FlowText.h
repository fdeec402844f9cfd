#pragma once

#include <string>

#include <nlohmann/json_fwd.hpp>

#include "host/Output.h"

namespace tandor::host {

/// Whether a flow event is one of a flow that stayed with the kernel: there are many of those.
[[nodiscard]] bool isAboutLeftFlow(const nlohmann::json& event);

/// One line about a flow event, for people: when, what, whose, where to.
[[nodiscard]] std::string describeEvent(const nlohmann::json& event, const Output& output);

/// Live flows, one a line.
[[nodiscard]] Table flowTable(const nlohmann::json& flows);

}  // namespace tandor::host
