#include "ipc/StatusMessage.h"

#include <string>

namespace tandor {

Data makeStatusContent(ProxyProviderStatus status, std::optional<std::string_view> text) {
  std::string content(1, static_cast<char>(status));
  if (text) content += *text;
  return Data::copying(content);
}

}  // namespace tandor
