#include "platform/linux/JSONValue.h"

#include <nlohmann/json.hpp>

namespace tandor {

using nlohmann::json;

AnyValue anyValue(const json& value) {
  switch (value.type()) {
    case json::value_t::boolean:
      return value.get<bool>();
    case json::value_t::number_integer:
      return value.get<std::int64_t>();
    case json::value_t::number_unsigned: {
      const auto number = value.get<std::uint64_t>();
      if (std::in_range<std::int64_t>(number)) return static_cast<std::int64_t>(number);
      return static_cast<double>(number);
    }
    case json::value_t::number_float:
      return value.get<double>();
    case json::value_t::string:
      return value.get<std::string>();
    case json::value_t::object:
      return anyDictionary(value);
    case json::value_t::array: {
      AnyList list;
      for (const json& element : value) list.push_back(anyValue(element));
      return list;
    }
    default:
      return nullptr;
  }
}

AnyDictionary anyDictionary(const json& object) {
  AnyDictionary dictionary;
  for (const auto& [key, element] : object.items()) dictionary.emplace(key, anyValue(element));
  return dictionary;
}

}  // namespace tandor
