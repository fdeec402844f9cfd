#pragma once

#include <cstdint>
#include <sys/types.h>

namespace tandor {

/// Who connected a socket, and how, at the moment it was done.
struct Connector {
  pid_t pid;
  std::uint64_t startTime;  // of the process, nanoseconds since the machine's start
  std::uint64_t program;    // another one after each exec of the process
  std::uint32_t interface;  // that the socket is bound to, or 0
};

}  // namespace tandor
