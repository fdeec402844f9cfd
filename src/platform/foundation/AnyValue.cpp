#include "platform/foundation/AnyValue.h"

#include <fmt/format.h>

#include "platform/foundation/Description.h"

namespace tandor {

std::string AnyValue::debugDescription() const {
  return std::visit(
      []<typename Value>(const Value& value) -> std::string {
        if constexpr (std::same_as<Value, std::nullptr_t>) {
          return "nil";
        } else if constexpr (std::same_as<Value, double>) {
          return fmt::format("{}", value);
        } else {
          return tandor::debugDescription(value);
        }
      },
      value_);
}

}  // namespace tandor
