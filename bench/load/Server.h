#pragma once

#include <cstdint>
#include <netinet/in.h>
#include <string>
#include <vector>

namespace tandor::load {

struct ServerOptions {
  std::uint16_t port = 443;
  std::uint16_t proxyPort = 3128;
  std::uint16_t echoPort = 4433;  // of datagrams
  std::uint16_t sinkPort = 4434;
  in_addr datagramsAt{};  // replies come from the address that was asked
  std::string countersPath;
};

/// Listens on all addresses and serves until it is killed; says "ready" on the standard output.
[[noreturn]] void serve(const ServerOptions& options);

}  // namespace tandor::load
