#include "ipc/IPCError.h"

#include <fmt/format.h>

#include "platform/foundation/Text.h"

namespace tandor {

std::string IPCError::description() const {
  struct Renderer {
    std::string operator()(const InvalidSocketPath& error) const {
      return fmt::format("invalidSocketPath(message: {})", quoted(error.message));
    }
    std::string operator()(const BsdError& error) const {
      return fmt::format("bsdError(message: {}, errno: {})", quoted(error.message),
                         error.errorNumber);
    }
    std::string operator()(Plain error) const {
      switch (error) {
        case Plain::connAlreadyClosed:
          return "connAlreadyClosed";
        case Plain::notSupport:
          return "notSupport";
        case Plain::peerClose:
          return "peerClose";
        case Plain::serializeFailed:
          return "serializeFailed";
      }
      return {};
    }
  };
  return std::visit(Renderer{}, case_);
}

}  // namespace tandor
