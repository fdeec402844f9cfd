#include "platform/Support.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <sys/socket.h>
#include <sys/time.h>
#include <system_error>
#include <thread>
#include <unistd.h>

#include "platform/Surroundings.h"

namespace tandor::test {
namespace {

constexpr std::size_t readSize = std::size_t{64} * 1024;

[[noreturn]] void fail(const std::string& call, int error = errno) {
  throw std::system_error(error, std::generic_category(), call);
}

void check(bool isFine, const char* call) {
  if (!isFine) fail(call);
}

/// A block of prime length, so that no power of two hides a shift.
const std::string& patternBlock() {
  static const std::string block = [] {
    std::string bytes(1'000'003, '\0');
    std::mt19937 random(20'260'101);  // NOLINT(*-msc51-cpp): the same in every run
    std::ranges::generate(bytes, [&] { return static_cast<char>(random()); });
    return bytes;
  }();
  return block;
}

/// The longest run of the pattern at `offset` that lies in one piece, of at most `most` bytes.
std::string_view patternPiece(std::size_t offset, std::size_t most) {
  return std::string_view(patternBlock()).substr(offset % patternBlock().size(), most);
}

}  // namespace

bool eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

int codeOf(const Error& error) {
  return error ? static_cast<int>(error->code()) : 0;
}

std::size_t openDescriptors() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

std::size_t residentBytes() {
  std::ifstream file("/proc/self/statm");
  std::size_t total = 0;
  std::size_t resident = 0;
  file >> total >> resident;
  return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

void passThrough(EpollLoop& loop) {
  // Twice: the first block may run in the turn that had looked before.
  for (int turn = 0; turn < 2; ++turn) {
    const Awaited<bool> passed;
    loop.post([passed] { passed.set(true); });
    static_cast<void>(passed.get());
  }
}

std::string pattern(std::size_t count, std::size_t offset) {
  std::string text;
  text.reserve(count);
  while (text.size() < count) text += patternPiece(offset + text.size(), count - text.size());
  return text;
}

void ip(const std::string& commands) {
  requireOwnNamespace();
  std::FILE* pipe = ::popen("ip -batch -", "w");
  check(pipe != nullptr, "popen");
  std::fputs(commands.c_str(), pipe);
  if (::pclose(pipe) != 0) throw std::runtime_error("ip failed: " + commands.substr(0, 200));
}

Peer::Peer(FileDescriptor socket) : socket_(std::move(socket)) {
  const timeval limit{.tv_sec = patience.count(), .tv_usec = 0};
  for (const int option : {SO_RCVTIMEO, SO_SNDTIMEO})
    ::setsockopt(socket_.get(), SOL_SOCKET, option, &limit, sizeof limit);
}

int Peer::trySend(std::string_view text) const {
  do {
    const ssize_t count = ::send(socket_.get(), text.data(), text.size(), MSG_NOSIGNAL);
    if (count < 0) {
      if (errno == EAGAIN) fail("send");
      return errno;
    }
    text.remove_prefix(static_cast<std::size_t>(count));
  } while (!text.empty());
  return 0;
}

void Peer::send(std::string_view text) const {
  if (const int error = trySend(text); error != 0) fail("send", error);
}

void Peer::sendPattern(std::size_t count) const {
  for (std::size_t offset = 0; offset < count;) {
    const std::string_view piece = patternPiece(offset, std::min(readSize, count - offset));
    send(piece);
    offset += piece.size();
  }
}

std::string Peer::receive(std::size_t count) const {
  std::string text(count, '\0');
  std::size_t done = 0;
  while (done < count) {
    const ssize_t got = ::recv(socket_.get(), text.data() + done, count - done, 0);
    check(got >= 0, "recv");
    if (got == 0) break;
    done += static_cast<std::size_t>(got);
  }
  text.resize(done);
  return text;
}

Transcript Peer::receiveAll(std::chrono::milliseconds pause) const {
  Transcript transcript;
  std::vector<char> buffer(readSize);
  for (;;) {
    const ssize_t count = ::recv(socket_.get(), buffer.data(), buffer.size(), 0);
    if (count < 0 && errno == EAGAIN) fail("recv");
    if (count < 0) transcript.error = errno;
    if (count <= 0) return transcript;
    transcript.text.append(buffer.data(), static_cast<std::size_t>(count));
    if (pause.count() > 0) std::this_thread::sleep_for(pause);
  }
}

std::size_t Peer::receivePattern(std::size_t count) const {
  std::vector<char> buffer(readSize);
  for (std::size_t offset = 0; offset < count;) {
    const ssize_t got = ::recv(socket_.get(), buffer.data(), buffer.size(), 0);
    check(got >= 0, "recv");
    if (got == 0) return offset;
    std::string_view bytes(buffer.data(), static_cast<std::size_t>(got));
    while (!bytes.empty()) {
      const std::string_view expected = patternPiece(offset, bytes.size());
      if (!bytes.starts_with(expected)) return offset;
      bytes.remove_prefix(expected.size());
      offset += expected.size();
    }
  }
  return count;
}

std::string Peer::receiveOnce() const {
  std::string text(readSize, '\0');
  const ssize_t count = ::recv(socket_.get(), text.data(), text.size(), 0);
  check(count >= 0, "recv");
  text.resize(static_cast<std::size_t>(count));
  return text;
}

std::string Peer::acceptDatagram() const {
  std::string text(readSize, '\0');
  sockaddr_storage sender{};
  socklen_t length = sizeof sender;
  const ssize_t count = ::recvfrom(socket_.get(), text.data(), text.size(), 0,
                                   reinterpret_cast<sockaddr*>(&sender), &length);
  check(count >= 0, "recvfrom");
  text.resize(static_cast<std::size_t>(count));
  connectPeer(*this, SocketAddress(reinterpret_cast<const sockaddr&>(sender), length));
  return text;
}

int Peer::receiveError() const {
  char byte = 0;
  if (::recv(socket_.get(), &byte, sizeof byte, 0) >= 0) return 0;
  if (errno == EAGAIN) fail("recv");
  return errno;
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

SocketAddress Peer::remoteAddress() const {
  sockaddr_storage storage{};
  socklen_t length = sizeof storage;
  check(::getpeername(socket_.get(), reinterpret_cast<sockaddr*>(&storage), &length) == 0,
        "getpeername");
  return {reinterpret_cast<const sockaddr&>(storage), length};
}

Peer boundPeer(int type, const std::string& host, std::uint16_t port) {
  const SocketAddress address = SocketAddress::fromNumeric(host, port).value();
  Peer peer(FileDescriptor(::socket(address.family(), type | SOCK_CLOEXEC, 0)));
  const int on = 1;
  ::setsockopt(peer.descriptor(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  check(::bind(peer.descriptor(), &address.get(), address.length()) == 0, "bind");
  return peer;
}

Peer connectedPeer(int type, const SocketAddress& address) {
  Peer peer(FileDescriptor(::socket(address.family(), type | SOCK_CLOEXEC, 0)));
  connectPeer(peer, address);
  return peer;
}

void connectPeer(const Peer& peer, const SocketAddress& address) {
  check(::connect(peer.descriptor(), &address.get(), address.length()) == 0, "connect");
}

Listener::Listener(const std::string& host, std::uint16_t port)
    : socket_(boundPeer(SOCK_STREAM, host, port)) {
  check(::listen(socket_.descriptor(), SOMAXCONN) == 0, "listen");
}

Peer Listener::accept() const {
  Peer peer(FileDescriptor(::accept4(socket_.descriptor(), nullptr, nullptr, SOCK_CLOEXEC)));
  check(peer.descriptor() >= 0, "accept");
  return peer;
}

}  // namespace tandor::test
