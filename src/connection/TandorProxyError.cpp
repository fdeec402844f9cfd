#include "connection/TandorProxyError.h"

#include "platform/foundation/Text.h"

namespace tandor {

std::string TandorProxyError::description() const {
  switch (case_) {
    case Case::invalidEndpointType:
      return "invalidEndpointType(raw: " + quoted(raw_) + ")";
    case Case::invalidEndpointPort:
      return "invalidEndpointPort(raw: " + quoted(raw_) + ")";
    case Case::objectIsReleased:
      return "objectIsReleased";
  }
  return {};
}

NSError TandorProxyError::platformError() const {
  return {"TandorProxyError", static_cast<std::int64_t>(case_), description()};
}

}  // namespace tandor
