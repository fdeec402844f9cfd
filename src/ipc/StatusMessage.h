#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/foundation/Data.h"

namespace tandor {

/// What a status message tells, as the byte that stands for it.
enum class ProxyProviderStatus : std::uint8_t { stopped = 0, started = 1 };

inline constexpr std::string_view statusMessageName = "ApiExtensionProxyStatusCallback";

/// The content of a status message: the status byte, then the text if there is one, in UTF-8 to the
/// end of the content.
[[nodiscard]] Data makeStatusContent(ProxyProviderStatus status,
                                     std::optional<std::string_view> text);

}  // namespace tandor
