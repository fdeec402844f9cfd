#include "platform/linux/OutboundSocket.h"

#include <cerrno>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "platform/linux/DatagramSocket.h"
#include "platform/linux/Marks.h"

namespace tandor {
namespace {

/// Of any address: which one it will be, the route decides at connecting. A server that sets
/// SO_REUSEADDR, as they do, can still listen there.
[[nodiscard]] int takePort(const FileDescriptor& socket, int family, std::uint16_t port) noexcept {
  const int on = 1;
  ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in6 anywhere{};  // in IPv4's form, too, all else is zero
  anywhere.sin6_family = static_cast<sa_family_t>(family);
  anywhere.sin6_port = htons(port);
  const auto& address = reinterpret_cast<const sockaddr&>(anywhere);
  return ::bind(socket.get(), &address, sizeof anywhere) == 0 ? 0 : errno;
}

}  // namespace

std::expected<FileDescriptor, int> makeOutboundSocket(int family, const NWParameters& parameters,
                                                      std::optional<std::uint16_t> port) {
  const bool isStream = parameters.transport == NWParameters::Transport::tcp;
  FileDescriptor socket(
      ::socket(family, (isStream ? SOCK_STREAM : SOCK_DGRAM) | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket.isOpen()) return std::unexpected(errno);
  // Without the privilege there is no interception either that the mark would have to pass.
  ::setsockopt(socket.get(), SOL_SOCKET, SO_MARK, &bypassMark, sizeof bypassMark);
  if (isStream) {
    const int on = 1;  // the application has decided already what to send at once
    ::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  } else {
    makeRoomForBursts(socket, roomForOneFlow);
  }
  if (const auto& interface = parameters.requiredInterface) {
    if (::setsockopt(socket.get(), SOL_SOCKET, SO_BINDTODEVICE, interface->name.c_str(),
                     static_cast<socklen_t>(interface->name.size())) != 0)
      return std::unexpected(errno);
  }
  if (port) {
    if (const int error = takePort(socket, family, *port); error != 0)
      return std::unexpected(error);
  }
  return socket;
}

}  // namespace tandor
