#pragma once

#include <cstdint>
#include <sys/types.h>

namespace tandor {

/// The process that connected a socket, at the moment it did.
struct Connector {
  pid_t pid;
  std::uint64_t startTime;  // of the process, nanoseconds since the machine's start
  std::uint64_t program;    // another one after each exec of the process
};

}  // namespace tandor
