#pragma once

#include <nlohmann/json_fwd.hpp>

#include "platform/foundation/AnyValue.h"

namespace tandor {

/// The JSON value as a configuration holds it. A number beyond 64 bits becomes floating-point.
[[nodiscard]] AnyValue anyValue(const nlohmann::json& value);
/// The members of a JSON object.
[[nodiscard]] AnyDictionary anyDictionary(const nlohmann::json& object);

}  // namespace tandor
