#pragma once

#include <concepts>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/Text.h"

namespace tandor {

/// The standard textual rendering of a value, as log lines show it: text unchanged, integers in
/// decimal, booleans as true or false, a type's own description(), an absent value as nil,
/// collections as [...] with their texts quoted.
template <typename Value>
[[nodiscard]] std::string description(const Value& value);

/// The same rendering for a place inside a collection or a payload, where text is quoted.
template <typename Value>
[[nodiscard]] std::string debugDescription(const Value& value);

namespace detail {

template <typename Value>
concept DescribesItself = requires(const Value& value) {
  { value.description() } -> std::convertible_to<std::string>;
};
template <typename Value>
concept DebugDescribesItself = requires(const Value& value) {
  { value.debugDescription() } -> std::convertible_to<std::string>;
};

template <typename Element>
std::string describeCollection(const std::vector<Element>& list) {
  std::string text = "[";
  for (const char* separator = ""; const Element& element : list) {
    text += separator;
    text += debugDescription(element);
    separator = ", ";
  }
  return text + "]";
}

template <typename Key, typename Element, typename Less>
std::string describeCollection(const std::map<Key, Element, Less>& dictionary) {
  if (dictionary.empty()) return "[:]";
  std::string text = "[";
  for (const char* separator = ""; const auto& [key, element] : dictionary) {
    text += separator;
    text += debugDescription(key);
    text += ": ";
    text += debugDescription(element);
    separator = ", ";
  }
  return text + "]";
}

template <typename Value>
concept Collection = requires(const Value& value) { describeCollection(value); };

}  // namespace detail

template <typename Value>
std::string description(const Value& value) {
  if constexpr (std::same_as<Value, bool>) {
    return value ? "true" : "false";
  } else if constexpr (std::integral<Value>) {
    return std::to_string(value);
  } else if constexpr (std::convertible_to<const Value&, std::string_view>) {
    return std::string(std::string_view(value));
  } else if constexpr (detail::DescribesItself<Value>) {
    return value.description();
  } else if constexpr (detail::DebugDescribesItself<Value>) {
    return value.debugDescription();
  } else if constexpr (detail::Collection<Value>) {
    return detail::describeCollection(value);
  } else {
    static_assert(requires { value.has_value(); }, "this type has no rendering");
    return value.has_value() ? description(*value) : "nil";
  }
}

template <typename Value>
std::string debugDescription(const Value& value) {
  if constexpr (std::convertible_to<const Value&, std::string_view>) {
    return quoted(std::string_view(value));
  } else {
    return description(value);
  }
}

}  // namespace tandor
