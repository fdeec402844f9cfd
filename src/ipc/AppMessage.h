#pragma once

#include <expected>
#include <string>
#include <string_view>

#include "platform/foundation/Data.h"

namespace tandor {

/// What the host application sends to the provider: a name that selects the meaning, and a content.
struct AppMessage {
  std::string name;
  Data content;
};

/// Reads the layout: name length (4 bytes, big-endian), name (UTF-8), content length (4), content;
/// bytes behind the content are ignored. Fails with the words for what is missing or wrong. The
/// content shares the storage of `data`.
[[nodiscard]] std::expected<AppMessage, std::string_view> readAppMessage(const Data& data);

/// Writes the same layout. Name and content are shorter than 4 GiB each.
[[nodiscard]] Data makeAppMessage(std::string_view name, const Data& content);

}  // namespace tandor
