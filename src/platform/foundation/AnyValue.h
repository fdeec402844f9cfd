#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <variant>
#include <vector>

namespace tandor {

class AnyValue;
using AnyList = std::vector<AnyValue>;
/// A dictionary from text keys to values of any type.
using AnyDictionary = std::map<std::string, AnyValue, std::less<>>;

/// One value of a configuration dictionary, of whatever type its sender gave it.
class AnyValue {
 public:
  using Variant =
      std::variant<std::nullptr_t, bool, std::int64_t, double, std::string, AnyList, AnyDictionary>;

  AnyValue() = default;
  // Values stand for themselves wherever a dictionary is written. NOLINTBEGIN(*-explicit-*)
  AnyValue(std::nullptr_t) {}
  AnyValue(bool value) : value_(value) {}
  AnyValue(std::int64_t value) : value_(value) {}
  AnyValue(double value) : value_(value) {}
  AnyValue(std::string value) : value_(std::move(value)) {}
  AnyValue(const char* value) : value_(std::string(value)) {}
  AnyValue(AnyList value) : value_(std::move(value)) {}
  AnyValue(AnyDictionary value) : value_(std::move(value)) {}
  // NOLINTEND(*-explicit-*)

  [[nodiscard]] const Variant& variant() const noexcept { return value_; }
  /// The text, or null when the value is of another type.
  [[nodiscard]] const std::string* text() const noexcept {
    return std::get_if<std::string>(&value_);
  }

  /// The value as it stands in a collection: text quoted, lists as [...], dictionaries as
  /// ["key": value, ...].
  [[nodiscard]] std::string debugDescription() const;

  friend bool operator==(const AnyValue&, const AnyValue&) = default;

 private:
  Variant value_;
};

}  // namespace tandor
