#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <string_view>
#include <vector>

#include "ipc/IPCError.h"
#include "platform/foundation/Data.h"

namespace tandor {

/// What the provider writes to the host application's socket. All numbers are big-endian:
///
///   payload     length (4, of what follows)   kind (4, always 10)   packet
///   packet      random UUID (16)   data length (8)   zero (8)   data block
///   data block  random UUID (16)   name length (8)   name   content length (8)   content
///
/// The builders fail with serializeFailed, and only then, when the name is not UTF-8. An absent
/// content makes the same bytes as an empty one.
using PayloadBytes = std::expected<std::vector<std::uint8_t>, IPCError>;

[[nodiscard]] PayloadBytes serializeData(std::string_view name, const std::optional<Data>& content);
[[nodiscard]] PayloadBytes serializePacket(std::string_view name,
                                           const std::optional<Data>& content);
/// The caller keeps name and content far below the 4 GiB that the length field can tell.
[[nodiscard]] PayloadBytes makePayload(std::string_view name, const std::optional<Data>& content);

}  // namespace tandor
