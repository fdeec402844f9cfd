#include "platform/linux/OutboundSocket.h"

#include <cerrno>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "platform/linux/DatagramSocket.h"
#include "platform/linux/Marks.h"

namespace tandor {
namespace {

/// Takes a port that the kernel gives to nobody who does not ask for one; sockets of ours share it.
/// Without one the connection has the kernel's choice.
void takePort(const FileDescriptor& socket, int family) noexcept {
  const int on = 1;
  ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in6 anywhere{};  // in IPv4's form, too, all else is zero
  anywhere.sin6_family = static_cast<sa_family_t>(family);
  static_cast<void>(
      ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&anywhere), sizeof anywhere));
}

}  // namespace

std::expected<FileDescriptor, int> makeOutboundSocket(int family, const NWParameters& parameters,
                                                      OutboundPort port) {
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
  if (port == OutboundPort::ofItsOwn) takePort(socket, family);
  return socket;
}

}  // namespace tandor
