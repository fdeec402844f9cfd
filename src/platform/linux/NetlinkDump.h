#pragma once

#include <cerrno>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <functional>
#include <span>

#include <libmnl/libmnl.h>

namespace tandor {

/// Asks the kernel on the given bus (NETLINK_*) for everything of one kind, with `body` as the
/// request's fixed header, and calls `visit` for each answer. Blocks briefly. Fails with an error
/// number.
[[nodiscard]] std::expected<void, int> dumpNetlink(
    int bus, std::uint16_t type, std::span<const std::byte> body,
    const std::function<void(const nlmsghdr&)>& visit);

/// The fixed header of a request, for dumpNetlink.
template <typename Header>
[[nodiscard]] std::span<const std::byte> headerBytes(const Header& header) {
  return std::as_bytes(std::span(&header, 1));
}

/// What `dump` adds to an empty Found. Asks again when something changed meanwhile, since such an
/// answer has gaps; where changes never end, the last answer has to do. Fails with an error number.
template <typename Found>
[[nodiscard]] std::expected<Found, int> wholeDump(std::expected<void, int> (*dump)(Found&)) {
  constexpr int mostAttempts = 20;
  for (int attempt = 1;; ++attempt) {
    Found found;
    const auto complete = dump(found);
    if (!complete && complete.error() != EINTR) return std::unexpected(complete.error());
    if (complete || attempt == mostAttempts) return found;
  }
}

/// Calls `visit` for each attribute behind the fixed header of `message`.
template <std::invocable<const nlattr&> Visitor>
void forEachAttribute(const nlmsghdr& message, std::size_t headerLength, Visitor visit) {
  ::mnl_attr_parse(
      &message, static_cast<unsigned>(headerLength),
      [](const nlattr* attribute, void* visitor) {
        (*static_cast<Visitor*>(visitor))(*attribute);
        return MNL_CB_OK;
      },
      &visit);
}

/// Calls `visit` for each attribute inside `nest`.
template <std::invocable<const nlattr&> Visitor>
void forEachAttribute(const nlattr& nest, Visitor visit) {
  ::mnl_attr_parse_nested(
      &nest,
      [](const nlattr* attribute, void* visitor) {
        (*static_cast<Visitor*>(visitor))(*attribute);
        return MNL_CB_OK;
      },
      &visit);
}

}  // namespace tandor
