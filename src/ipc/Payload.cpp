#include "ipc/Payload.h"

#include "ipc/BigEndian.h"
#include "platform/foundation/Text.h"
#include "platform/foundation/UUID.h"

namespace tandor {
namespace {

constexpr std::uint32_t payloadKind = 10;

using Bytes = std::vector<std::uint8_t>;

template <typename Range>
void append(Bytes& bytes, const Range& more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
}

}  // namespace

PayloadBytes serializeData(std::string_view name, const std::optional<Data>& content) {
  if (!isUTF8(name)) return std::unexpected(IPCError::serializeFailed());
  Bytes block;
  append(block, UUID::random().bytes);
  appendBigEndian(block, std::uint64_t{name.size()});
  append(block, name);
  appendBigEndian(block, std::uint64_t{content ? content->count() : 0});
  if (content) append(block, content->bytes());
  return block;
}

PayloadBytes serializePacket(std::string_view name, const std::optional<Data>& content) {
  const PayloadBytes block = serializeData(name, content);
  if (!block) return block;
  Bytes packet;
  append(packet, UUID::random().bytes);
  appendBigEndian(packet, std::uint64_t{block->size()});
  appendBigEndian(packet, std::uint64_t{0});
  append(packet, *block);
  return packet;
}

PayloadBytes makePayload(std::string_view name, const std::optional<Data>& content) {
  const PayloadBytes packet = serializePacket(name, content);
  if (!packet) return packet;
  Bytes payload;
  appendBigEndian(payload, static_cast<std::uint32_t>(sizeof payloadKind + packet->size()));
  appendBigEndian(payload, payloadKind);
  append(payload, *packet);
  return payload;
}

}  // namespace tandor
