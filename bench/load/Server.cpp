#include "load/Server.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <utility>

#include "load/Datagrams.h"
#include "load/Protocol.h"
#include "platform/linux/FileDescriptor.h"

namespace tandor::load {
namespace {

constexpr std::size_t largeRead = std::size_t{1024} * 1024;
constexpr std::string_view established = "HTTP/1.1 200 Connection established\r\n\r\n";

FileDescriptor boundSocket(int type, std::uint16_t port, in_addr where = {}) {
  FileDescriptor socket(::socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const int on = 1;
  ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr = where;
  address.sin_port = htons(port);
  if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    fail("bind");
  return socket;
}

/// One flow.
struct Peer {
  FileDescriptor socket;
  bool isAwaitingConnect = false;  // came to the proxy's port and has not asked yet
  bool isSending = false;
  bool isWrong = false;  // a checked byte was not what it should be
  std::string head;      // of an unfinished request or hello
  std::optional<Command> command;
  std::uint64_t done = 0;
};

class Server {
 public:
  explicit Server(const ServerOptions& options);
  [[noreturn]] void run();

 private:
  void watch(int socket, std::uint32_t events, int change = EPOLL_CTL_ADD) const;
  void accept(int listener);
  /// False ends the flow.
  [[nodiscard]] bool receive(Peer& peer);
  [[nodiscard]] bool consume(Peer& peer, std::string_view bytes);
  [[nodiscard]] bool consumeHead(Peer& peer, std::string_view bytes);
  [[nodiscard]] bool begin(Peer& peer);
  [[nodiscard]] bool send(Peer& peer);
  [[nodiscard]] static bool endUpload(const Peer& peer);

  const Pattern pattern_;
  Counters& counters_;
  FileDescriptor epoll_{::epoll_create1(EPOLL_CLOEXEC)};
  FileDescriptor listener_;
  FileDescriptor proxyListener_;
  FileDescriptor echo_;
  FileDescriptor sink_;
  DatagramBatch batch_;
  std::vector<std::unique_ptr<Peer>> peers_;  // by descriptor
  std::vector<char> room_ = std::vector<char>(largeRead);
};

Server::Server(const ServerOptions& options)
    : counters_(Counters::shared(options.countersPath)),
      listener_(boundSocket(SOCK_STREAM, options.port)),
      proxyListener_(boundSocket(SOCK_STREAM, options.proxyPort)),
      echo_(boundSocket(SOCK_DGRAM, options.echoPort, options.datagramsAt)),
      sink_(boundSocket(SOCK_DGRAM, options.sinkPort, options.datagramsAt)) {
  for (const auto* listener : {&listener_, &proxyListener_}) {
    const int on = 1;
    // Accepted sockets inherit it.
    ::setsockopt(listener->get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (::listen(listener->get(), SOMAXCONN) != 0) fail("listen");
  }
  for (const auto* socket : {&listener_, &proxyListener_, &echo_, &sink_})
    watch(socket->get(), EPOLLIN);
}

void Server::watch(int socket, std::uint32_t events, int change) const {
  epoll_event event{.events = events, .data = {.fd = socket}};
  if (::epoll_ctl(epoll_.get(), change, socket, &event) != 0) fail("epoll_ctl");
}

void Server::run() {
  std::array<epoll_event, 256> events{};
  for (;;) {
    const int count =
        ::epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), -1);
    for (int index = 0; index < count; ++index) {
      const int socket = events.at(static_cast<std::size_t>(index)).data.fd;
      if (socket == listener_.get() || socket == proxyListener_.get()) {
        accept(socket);
      } else if (socket == echo_.get()) {
        counters_.datagrams = counters_.datagrams + batch_.receive(socket);
        batch_.sendBack(socket);
      } else if (socket == sink_.get()) {
        counters_.datagrams = counters_.datagrams + batch_.receive(socket);
      } else {
        auto& peer = peers_[static_cast<std::size_t>(socket)];
        if (!(peer->isSending ? send(*peer) : receive(*peer))) peer.reset();
      }
    }
  }
}

void Server::accept(int listener) {
  for (;;) {
    FileDescriptor socket(::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!socket.isOpen()) return;
    const auto number = static_cast<std::size_t>(socket.get());
    watch(socket.get(), EPOLLIN);
    if (peers_.size() <= number) peers_.resize(number + 1);
    peers_[number] = std::make_unique<Peer>();
    peers_[number]->socket = std::move(socket);
    peers_[number]->isAwaitingConnect = listener == proxyListener_.get();
  }
}

bool Server::receive(Peer& peer) {
  const bool mayDiscard =
      peer.command && peer.command->operation == Operation::up && !peer.command->isChecked;
  const ssize_t count = ::recv(peer.socket.get(), room_.data(), room_.size(),
                               MSG_DONTWAIT | (mayDiscard ? MSG_TRUNC : 0));
  if (count < 0) return errno == EAGAIN || errno == EINTR;
  if (count == 0) return false;
  return consume(peer, {room_.data(), static_cast<std::size_t>(count)});
}

bool Server::consume(Peer& peer, std::string_view bytes) {
  if (!peer.command) return consumeHead(peer, bytes);
  switch (peer.command->operation) {
    case Operation::echo:
      return ::send(peer.socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
             static_cast<ssize_t>(bytes.size());
    case Operation::up:
      if (peer.command->isChecked && !pattern_.matches(bytes, Pattern::upPhase + peer.done))
        peer.isWrong = true;
      peer.done += bytes.size();
      counters_.bytes = counters_.bytes + bytes.size();
      return peer.done < peer.command->size || endUpload(peer);
    default:
      return bytes.empty();  // nothing was expected
  }
}

bool Server::consumeHead(Peer& peer, std::string_view bytes) {
  std::string earlier;
  if (!peer.head.empty()) {
    earlier = std::exchange(peer.head, {}).append(bytes);
    bytes = earlier;
  }
  if (peer.isAwaitingConnect) {
    constexpr std::string_view blank = "\r\n\r\n";
    const std::size_t end = bytes.find(blank);
    if (end != std::string_view::npos) {
      if (!bytes.starts_with("CONNECT ")) return false;
      peer.isAwaitingConnect = false;
      bytes.remove_prefix(end + blank.size());
      if (::send(peer.socket.get(), established.data(), established.size(), MSG_NOSIGNAL) < 0)
        return false;
    }
  }
  if (peer.isAwaitingConnect || bytes.size() < Hello::size) {
    peer.head = bytes;
    return bytes.size() < largeRead;
  }
  peer.command = Hello::commandIn(bytes);
  if (!peer.command || !begin(peer)) return false;
  bytes.remove_prefix(Hello::size);
  return bytes.empty() || consume(peer, bytes);
}

bool Server::begin(Peer& peer) {
  const auto& [operation, isChecked, size] = *peer.command;
  switch (operation) {
    case Operation::down:
      peer.isSending = true;
      watch(peer.socket.get(), EPOLLOUT, EPOLL_CTL_MOD);
      return true;
    case Operation::flow:
      ::send(peer.socket.get(), pattern_.at(Pattern::downPhase),
             std::min(size, std::uint64_t{Pattern::longestPiece}), MSG_NOSIGNAL);
      return false;
    case Operation::idle:
      return ::send(peer.socket.get(), "!", 1, MSG_NOSIGNAL) == 1;
    default:
      return true;
  }
}

bool Server::send(Peer& peer) {
  const auto& [operation, isChecked, size] = *peer.command;
  const std::size_t count = std::min(size - peer.done, std::uint64_t{Pattern::longestPiece});
  // Unchecked bytes are always the same ones: they stay in the cache.
  const ssize_t sent =
      ::send(peer.socket.get(), pattern_.at(Pattern::downPhase + (isChecked ? peer.done : 0)),
             count, MSG_NOSIGNAL | MSG_DONTWAIT);
  if (sent < 0) return errno == EAGAIN || errno == EINTR;
  peer.done += static_cast<std::uint64_t>(sent);
  return peer.done < size;
}

bool Server::endUpload(const Peer& peer) {
  const std::uint64_t right = peer.isWrong ? 0 : peer.done;
  ::send(peer.socket.get(), &right, sizeof right, MSG_NOSIGNAL);
  return false;
}

}  // namespace

void serve(const ServerOptions& options) {
  Server server(options);
  std::puts("ready");
  std::fflush(stdout);
  server.run();
}

}  // namespace tandor::load
