#include "platform/foundation/NSError.h"

#include <cstddef>
#include <system_error>
#include <vector>

#include <fmt/format.h>

namespace tandor {
namespace {

NSError makePosixError(int number) {
  return {NSError::posixDomain, number,
          fmt::format("posix({}: {})", number, std::generic_category().message(number))};
}

}  // namespace

NSError NSError::posix(int errorNumber) {
  // Every flow that ends brings one: those that the system has are made once.
  constexpr int lastKnown = 133;
  static const auto known = [] {
    std::vector<NSError> errors;
    errors.reserve(lastKnown + 1);
    for (int number = 0; number <= lastKnown; ++number) errors.push_back(makePosixError(number));
    return errors;
  }();
  if (errorNumber < 0 || errorNumber > lastKnown) return makePosixError(errorNumber);
  return known[static_cast<std::size_t>(errorNumber)];
}

}  // namespace tandor
