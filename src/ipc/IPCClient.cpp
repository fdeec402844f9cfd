#include "ipc/IPCClient.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "ipc/Payload.h"

namespace tandor {
namespace {

std::unexpected<IPCError> systemFailure(std::string_view message) {
  return std::unexpected(IPCError::bsdError(message, errno));
}

}  // namespace

std::expected<IPCClient, IPCError> IPCClient::make(std::string_view socketPath,
                                                   std::chrono::milliseconds limit) {
  IPCClient client(socketPath, Clock::now() + limit);
  if (auto connected = client.connect(); !connected) return std::unexpected(connected.error());
  return client;
}

IPCClient::IPCClient(IPCClient&& other) noexcept
    : socketPath_(std::move(other.socketPath_)),
      socketFd_(std::exchange(other.socketFd_, std::nullopt)),
      deadline_(other.deadline_) {}

IPCClient& IPCClient::operator=(IPCClient&& other) noexcept {
  std::swap(socketPath_, other.socketPath_);
  std::swap(socketFd_, other.socketFd_);
  std::swap(deadline_, other.deadline_);
  return *this;
}

IPCClient::~IPCClient() {
  static_cast<void>(close());
}

void IPCClient::limitWait(int option) const {
  using namespace std::chrono_literals;
  // A wait that runs out makes the call fail with EAGAIN, which is reported like any other error;
  // none at all would be one without an end.
  const auto left = std::max(deadline_ - Clock::now(), Clock::duration(1ms));
  const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
  timeval wait{};
  wait.tv_sec = static_cast<decltype(wait.tv_sec)>(seconds.count());
  wait.tv_usec = static_cast<decltype(wait.tv_usec)>(
      std::chrono::duration_cast<std::chrono::microseconds>(left - seconds).count());
  ::setsockopt(*socketFd_, SOL_SOCKET, option, &wait, sizeof wait);
}

std::expected<void, IPCError> IPCClient::connect() {
  const int descriptor = ::socket(AF_UNIX, SOCK_STREAM, 0);
  if (descriptor < 0) return systemFailure("create socket failed");
  socketFd_ = descriptor;
  ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socketPath_.size() + 1 > maximumPathLength) {
    static_cast<void>(close());
    return std::unexpected(IPCError::invalidSocketPath("path too long"));
  }
  std::ranges::copy(socketPath_, address.sun_path);
  limitWait(SO_SNDTIMEO);
  // The two bytes of the family stand before the path; its terminator is not counted.
  const auto length = static_cast<socklen_t>(socketPath_.size() + 2);
  if (::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), length) != 0) {
    const int errorNumber = errno;
    static_cast<void>(close());
    return std::unexpected(IPCError::bsdError("connect socket failed", errorNumber));
  }
  auto shaken = handshake();
  if (!shaken) static_cast<void>(close());
  return shaken;
}

std::expected<void, IPCError> IPCClient::handshake() {
  static constexpr std::array<std::uint8_t, 1> acknowledgement = {0};
  for (const std::size_t count : {2U, 4U}) {
    if (auto received = receive(count); !received) return std::unexpected(received.error());
    if (auto sent = send(acknowledgement); !sent) return sent;
  }
  return {};
}

std::expected<void, IPCError> IPCClient::sendMessage(std::string_view name,
                                                     const std::optional<Data>& content) {
  const auto payload = makePayload(name, content);
  if (!payload) return std::unexpected(payload.error());
  return send(*payload);
}

std::expected<Data, IPCError> IPCClient::receive(std::size_t count) {
  if (!socketFd_) return std::unexpected(IPCError::connAlreadyClosed());
  std::vector<std::uint8_t> buffer(count);
  limitWait(SO_RCVTIMEO);
  const ssize_t received = ::read(*socketFd_, buffer.data(), buffer.size());
  if (received < 0) return systemFailure("receive failed");
  buffer.resize(static_cast<std::size_t>(received));
  return Data::copying(buffer);
}

std::expected<void, IPCError> IPCClient::send(std::span<const std::uint8_t> bytes) {
  if (!socketFd_) return std::unexpected(IPCError::connAlreadyClosed());
  if (std::cmp_greater(bytes.size(), maximumPacketLength))
    return std::unexpected(IPCError::notSupport());
  while (!bytes.empty()) {
    limitWait(SO_SNDTIMEO);
    const ssize_t written = ::write(*socketFd_, bytes.data(), bytes.size());
    if (written < 0) return systemFailure("write failed");
    if (written == 0) return std::unexpected(IPCError::peerClose());
    bytes = bytes.subspan(static_cast<std::size_t>(written));
  }
  return {};
}

std::expected<void, IPCError> IPCClient::close() {
  if (!socketFd_) return std::unexpected(IPCError::connAlreadyClosed());
  ::close(*std::exchange(socketFd_, std::nullopt));
  return {};
}

}  // namespace tandor
