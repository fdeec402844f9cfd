#include "platform/linux/SocketDestroyWatch.h"

#include <array>
#include <cerrno>
#include <linux/inet_diag.h>
#include <linux/sock_diag.h>
#include <sys/socket.h>
#include <utility>

#include <libmnl/libmnl.h>

namespace tandor {
namespace {

/// Some ten thousand sockets that go at once, as those of an ended process do, are heard of.
constexpr int receiveBuffer = 8 * 1024 * 1024;
/// Messages in one step.
constexpr int mostInAStep = 64;

}  // namespace

std::expected<std::unique_ptr<SocketDestroyWatch>, int> SocketDestroyWatch::make(EpollLoop& loop,
                                                                                 Owner& owner) {
  FileDescriptor socket(
      ::socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
  // Only a bound socket is told anything.
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  if (!socket.isOpen() ||
      ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    return std::unexpected(errno);
  for (const int group : {int{SKNLGRP_INET_UDP_DESTROY}, int{SKNLGRP_INET6_UDP_DESTROY}}) {
    if (::setsockopt(socket.get(), SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) != 0)
      return std::unexpected(errno);
  }
  ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUFFORCE, &receiveBuffer, sizeof receiveBuffer);
  // The constructor is private: only a subscribed watch is ever made.
  std::unique_ptr<SocketDestroyWatch> watch(
      new SocketDestroyWatch(loop, std::move(socket), owner));  // NOLINT(*-owning-memory)
  if (!loop.add(watch->socket_.get(), *watch)) return std::unexpected(errno);
  return watch;
}

SocketDestroyWatch::~SocketDestroyWatch() {
  loop_.remove(socket_.get(), *this);
}

void SocketDestroyWatch::ready(std::uint32_t /*events*/) {
  loop_.defer(receive_);
}

void SocketDestroyWatch::receive() {
  alignas(nlmsghdr) std::array<char, 8192> buffer;
  for (int round = 0; round < mostInAStep; ++round) {
    const ssize_t count = ::recv(socket_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (count > 0) {
      report(std::span(buffer).first(static_cast<std::size_t>(count)));
    } else if (count < 0 && errno == ENOBUFS) {
      hasMissed_ = true;
    } else if (count == 0 || errno != EINTR) {
      // The kernel tells nothing new before what waits has been read: only now is nothing missed
      // any more.
      if (std::exchange(hasMissed_, false)) owner_.destructionsMissed();
      return;
    }
  }
  loop_.defer(receive_);
}

void SocketDestroyWatch::report(std::span<const char> messages) const {
  auto left = static_cast<int>(messages.size());
  for (const auto* message = reinterpret_cast<const nlmsghdr*>(messages.data());
       ::mnl_nlmsg_ok(message, left); message = ::mnl_nlmsg_next(message, &left)) {
    if (::mnl_nlmsg_get_payload_len(message) < sizeof(inet_diag_msg)) continue;
    const auto& socket = *static_cast<const inet_diag_msg*>(::mnl_nlmsg_get_payload(message));
    owner_.socketDestroyed(std::uint64_t{socket.id.idiag_cookie[1]} << 32 |
                           socket.id.idiag_cookie[0]);
  }
}

}  // namespace tandor
