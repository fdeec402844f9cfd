#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <netinet/in.h>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tandor::load {

struct ClientOptions {
  std::string helloPath;
  std::string countersPath;
  std::vector<sockaddr_in> destinations;  // taken in turn
  bool speaksConnect = false;             // the destinations are a proxy's
  std::chrono::milliseconds warmUp{300};
  std::chrono::milliseconds time{1000};
  std::vector<pid_t> watched;
  std::size_t flows = 1;
  std::uint64_t size = 0;
  std::uint32_t rate = 0;  // new flows a second; 0 for as many as go
};

// The cases. Each returns the members of a JSON object, or ends the program with what failed.

/// `size` checked bytes, first down, then up.
std::string runCheck(const ClientOptions& options);
/// As many bytes as go over `flows` flows at once.
std::string runBulk(const ClientOptions& options, bool isUp);
/// New flows with a reply of `size` bytes, `flows` at a time.
std::string runStorm(const ClientOptions& options);
/// New flows that end as soon as they have come about, at `rate`, at most `flows` at a time, and
/// meanwhile round trips on another one. In parts, so that one sees what changes with time.
std::string runChurn(const ClientOptions& options);
/// One new flow after the other: from connecting to the reply's first byte.
std::string runSetUp(const ClientOptions& options);
/// Round trips of `size` bytes on one flow.
std::string runEcho(const ClientOptions& options);
/// Opens `flows` flows, says so, and keeps them until the standard input ends.
std::string runIdle(const ClientOptions& options);
/// Datagrams of `size` bytes there and back, `flows` of them on their way.
std::string runDatagramEcho(const ClientOptions& options);
/// Datagrams of `size` bytes, as many as go.
std::string runDatagramSink(const ClientOptions& options);

}  // namespace tandor::load
