#include "load/Flow.h"

#include <array>
#include <cerrno>
#include <netinet/tcp.h>
#include <poll.h>
#include <string_view>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <utility>

namespace tandor::load {
namespace {

constexpr std::string_view connectRequest =
    "CONNECT www.example.com:443 HTTP/1.1\r\nHost: www.example.com:443\r\n\r\n";

/// The server sends nothing behind its reply before it has the hello, so one receive is enough for
/// such a short one.
bool receiveReply(int socket) {
  std::array<char, 256> room{};
  const ssize_t count = ::recv(socket, room.data(), room.size(), 0);
  return count > 0 && std::string_view(room.data(), static_cast<std::size_t>(count))
                          .starts_with("HTTP/1.1 200 ");
}

bool sendWhole(int socket, const std::string& text) {
  return ::send(socket, text.data(), text.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(text.size());
}

}  // namespace

FlowMaker::FlowMaker(const ClientOptions& options, const Command& command)
    : options_(options),
      hello_(Hello(options.helloPath).with(command)),
      request_(options.speaksConnect ? connectRequest : "") {}

const sockaddr_in& FlowMaker::nextDestination() {
  return options_.destinations[turn_++ % options_.destinations.size()];
}

FileDescriptor FlowMaker::connecting() {
  FileDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket.isOpen()) fail("socket");
  const int on = 1;
  ::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  const sockaddr_in& to = nextDestination();
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0 &&
      errno != EINPROGRESS)
    fail("connect");
  return socket;
}

FileDescriptor FlowMaker::open() {
  FileDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  ::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  // A relay that loses something must not keep the benchmark for ever.
  const timeval patience{.tv_sec = 10, .tv_usec = 0};
  ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  const sockaddr_in& to = nextDestination();
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0)
    fail("connect");
  if (speaksConnect() && (!sendWhole(socket.get(), request_) || !receiveReply(socket.get())))
    fail("CONNECT");
  if (!sendWhole(socket.get(), hello_)) fail("send");
  return socket;
}

Flow::Flow(FlowMaker& maker, int epoll) : maker_(maker), socket_(maker.connecting()) {
  epoll_event event{.events = EPOLLIN | EPOLLOUT | EPOLLET, .data = {.ptr = this}};
  if (::epoll_ctl(epoll, EPOLL_CTL_ADD, socket_.get(), &event) != 0) fail("epoll_ctl");
}

Flow::Stage Flow::advance() {
  if (stage_ == Stage::connecting) {
    const std::string& first = maker_.speaksConnect() ? maker_.request() : maker_.hello();
    if (sendWhole(socket(), first)) {
      stage_ = maker_.speaksConnect() ? Stage::asking : Stage::open;
    } else if (errno != EAGAIN && errno != ENOTCONN) {
      stage_ = Stage::failed;
    }
    return stage_;
  }
  if (stage_ == Stage::asking) {
    if (receiveReply(socket())) {
      stage_ = sendWhole(socket(), maker_.hello()) ? Stage::open : Stage::failed;
    } else if (errno != EAGAIN) {
      stage_ = Stage::failed;
    }
  }
  return stage_;
}

}  // namespace tandor::load
