#include "platform/Support.h"

#include <algorithm>
#include <cerrno>
#include <random>
#include <sys/socket.h>
#include <sys/time.h>
#include <system_error>
#include <thread>

namespace tandor::test {
namespace {

constexpr std::size_t readSize = std::size_t{64} * 1024;

void check(bool isFine, const char* call) {
  if (!isFine) throw std::system_error(errno, std::generic_category(), call);
}

}  // namespace

std::string pattern(std::size_t count, std::size_t offset) {
  // Of prime length, so that no power of two hides a shift.
  static const std::string block = [] {
    std::string bytes(1'000'003, '\0');
    std::mt19937 random(20'260'101);  // NOLINT(*-msc51-cpp): the same in every run
    std::ranges::generate(bytes, [&] { return static_cast<char>(random()); });
    return bytes;
  }();
  std::string text;
  text.reserve(count);
  while (text.size() < count)
    text.append(block, (offset + text.size()) % block.size(), count - text.size());
  return text;
}

Peer::Peer(FileDescriptor socket) : socket_(std::move(socket)) {
  const timeval limit{.tv_sec = patience.count(), .tv_usec = 0};
  for (const int option : {SO_RCVTIMEO, SO_SNDTIMEO})
    ::setsockopt(socket_.get(), SOL_SOCKET, option, &limit, sizeof limit);
}

void Peer::send(std::string_view text) const {
  do {
    const ssize_t count = ::send(socket_.get(), text.data(), text.size(), MSG_NOSIGNAL);
    check(count >= 0, "send");
    text.remove_prefix(static_cast<std::size_t>(count));
  } while (!text.empty());
}

std::string Peer::receive(std::size_t count) const {
  std::string text(count, '\0');
  const ssize_t done = ::recv(socket_.get(), text.data(), count, MSG_WAITALL);
  check(done >= 0, "recv");
  text.resize(static_cast<std::size_t>(done));
  return text;
}

Transcript Peer::receiveAll(std::chrono::milliseconds pause) const {
  Transcript transcript;
  std::string piece(readSize, '\0');
  for (;;) {
    const ssize_t count = ::recv(socket_.get(), piece.data(), piece.size(), 0);
    check(count >= 0 || errno != EAGAIN, "recv");
    if (count < 0) transcript.error = errno;
    if (count <= 0) return transcript;
    transcript.text.append(piece, 0, static_cast<std::size_t>(count));
    if (pause.count() > 0) std::this_thread::sleep_for(pause);
  }
}

int Peer::receiveError() const {
  char byte = 0;
  if (::recv(socket_.get(), &byte, sizeof byte, 0) >= 0) return 0;
  check(errno != EAGAIN, "recv");
  return errno;
}

void Peer::connect(const SocketAddress& address) const {
  check(::connect(socket_.get(), &address.get(), address.length()) == 0, "connect");
}

void Peer::finishSending() const {
  check(::shutdown(socket_.get(), SHUT_WR) == 0, "shutdown");
}

void Peer::reset() {
  const linger immediate{.l_onoff = 1, .l_linger = 0};
  ::setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &immediate, sizeof immediate);
  socket_.reset();
}

SocketAddress Peer::address() const {
  sockaddr_storage storage{};
  socklen_t length = sizeof storage;
  check(::getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&storage), &length) == 0,
        "getsockname");
  return {reinterpret_cast<const sockaddr&>(storage), length};
}

Listener::Listener(const std::string& host)
    : socket_([&] {
        const SocketAddress address = SocketAddress::fromNumeric(host, 0).value();
        FileDescriptor socket(::socket(address.family(), SOCK_STREAM | SOCK_CLOEXEC, 0));
        check(::bind(socket.get(), &address.get(), address.length()) == 0, "bind");
        check(::listen(socket.get(), SOMAXCONN) == 0, "listen");
        return socket;
      }()) {}

Peer Listener::accept() const {
  Peer peer(FileDescriptor(::accept4(socket_.descriptor(), nullptr, nullptr, SOCK_CLOEXEC)));
  check(peer.descriptor() >= 0, "accept");
  return peer;
}

}  // namespace tandor::test
