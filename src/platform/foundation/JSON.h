#pragma once

#include <expected>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/NSError.h"

namespace tandor {

/// Decodes a JSON text (RFC 8259, UTF-8) whose top level is an array of strings.
[[nodiscard]] std::expected<std::vector<std::string>, NSError> decodeJSONStringList(
    std::string_view text);

/// Decodes a JSON text whose top level is an object and whose every value is a string. Of members
/// with the same name the last counts.
[[nodiscard]] std::expected<std::map<std::string, std::string>, NSError> decodeJSONStringDictionary(
    std::string_view text);

}  // namespace tandor
