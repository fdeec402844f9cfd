#include "platform/foundation/JSON.h"

#include <nlohmann/json.hpp>

namespace tandor {
namespace {

using nlohmann::json;

enum class DecodingError : std::uint8_t { dataCorrupted, typeMismatch };

NSError decodingError(DecodingError error, std::string_view text) {
  const std::string_view name =
      error == DecodingError::dataCorrupted ? "dataCorrupted" : "typeMismatch";
  return {"JSONDecodingError", static_cast<std::int64_t>(error),
          std::string(name) + "(\"" + std::string(text) + "\")"};
}

std::expected<json, NSError> parse(std::string_view text) {
  json value = json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (value.is_discarded())
    return std::unexpected(decodingError(DecodingError::dataCorrupted, "not valid JSON"));
  return value;
}

NSError notText() {
  return decodingError(DecodingError::typeMismatch, "expected every value to be a string");
}

}  // namespace

std::expected<std::vector<std::string>, NSError> decodeJSONStringList(std::string_view text) {
  auto value = parse(text);
  if (!value) return std::unexpected(value.error());
  if (!value->is_array())
    return std::unexpected(decodingError(DecodingError::typeMismatch, "expected an array"));
  std::vector<std::string> list;
  list.reserve(value->size());
  for (json& element : *value) {
    if (!element.is_string()) return std::unexpected(notText());
    list.push_back(std::move(element.get_ref<std::string&>()));
  }
  return list;
}

std::expected<std::map<std::string, std::string>, NSError> decodeJSONStringDictionary(
    std::string_view text) {
  auto value = parse(text);
  if (!value) return std::unexpected(value.error());
  if (!value->is_object())
    return std::unexpected(decodingError(DecodingError::typeMismatch, "expected an object"));
  std::map<std::string, std::string> dictionary;
  for (auto& [key, element] : value->items()) {
    if (!element.is_string()) return std::unexpected(notText());
    dictionary.emplace(key, std::move(element.get_ref<std::string&>()));
  }
  return dictionary;
}

}  // namespace tandor
