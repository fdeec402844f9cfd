#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace tandor::host {

/// The text that `object` has under `key`; absent when there is none, or something else.
[[nodiscard]] inline std::optional<std::string> textMember(const nlohmann::json& object,
                                                           std::string_view key) {
  const auto member = object.find(key);
  if (member == object.end() || !member->is_string()) return std::nullopt;
  return member->get<std::string>();
}

/// The whole number that `object` has under `key`; absent as above.
[[nodiscard]] inline std::optional<std::int64_t> numberMember(const nlohmann::json& object,
                                                              std::string_view key) {
  const auto member = object.find(key);
  if (member == object.end() || !member->is_number_integer()) return std::nullopt;
  return member->get<std::int64_t>();
}

/// The value on one line, with its line feed; bytes that are no UTF-8 are replaced.
[[nodiscard]] inline std::string jsonLine(const nlohmann::json& value) {
  return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace tandor::host
