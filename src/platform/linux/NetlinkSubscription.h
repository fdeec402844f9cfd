#pragma once

#include <cstdint>
#include <linux/netlink.h>
#include <sys/socket.h>

#include "platform/linux/FileDescriptor.h"

namespace tandor {

/// A non-blocking socket that hears of changes in the given groups (RTMGRP_*, or those of another
/// bus); none when the kernel does not let us.
[[nodiscard]] inline FileDescriptor subscribeToNetlink(std::uint32_t groups,
                                                       int bus = NETLINK_ROUTE) {
  FileDescriptor socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, bus));
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = groups;
  if (socket.isOpen() &&
      ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    socket.reset();
  return socket;
}

}  // namespace tandor
