#include "platform/foundation/NSError.h"

#include <system_error>

#include <fmt/format.h>

namespace tandor {

NSError NSError::posix(int errorNumber) {
  return {posixDomain, errorNumber,
          fmt::format("posix({}: {})", errorNumber, std::generic_category().message(errorNumber))};
}

}  // namespace tandor
