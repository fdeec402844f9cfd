#include "platform/networkextension/NEAppProxyFlow.h"

namespace tandor {

std::string_view className(const NWFlowEndpoint& endpoint) noexcept {
  if (const auto* opaque = std::get_if<NWOpaqueEndpoint>(&endpoint)) return opaque->className;
  return "NWHostEndpoint";
}

}  // namespace tandor
