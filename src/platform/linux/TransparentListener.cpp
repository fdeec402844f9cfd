#include "platform/linux/TransparentListener.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <utility>

#include "platform/linux/DatagramSocket.h"
#include "platform/linux/StreamSocket.h"

namespace tandor {
namespace {

/// Out of descriptors: how long until the next try.
constexpr auto retryDelay = std::chrono::milliseconds(100);
/// Room for the datagrams that the packet queue lets go at once.
constexpr int roomForHeld = 4 * 1024 * 1024;

bool setOption(const FileDescriptor& socket, int level, int option) {
  const int on = 1;
  return ::setsockopt(socket.get(), level, option, &on, sizeof on) == 0;
}

std::expected<FileDescriptor, int> makeTransparent(int type, const IPv4Endpoint& local,
                                                   int sharing) {
  FileDescriptor socket(::socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const sockaddr_in address = local.socketAddress();
  if (!socket.isOpen() || !setOption(socket, SOL_SOCKET, SO_REUSEADDR) ||
      (sharing != 0 && !setOption(socket, SOL_SOCKET, sharing)) ||
      !setOption(socket, SOL_IP, IP_TRANSPARENT) ||
      ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    return std::unexpected(errno);
  return socket;
}

/// The socket of one UDP flow: what the application sends to the destination arrives there, and
/// what it sends comes from the destination.
std::expected<FileDescriptor, int> makeFlowSocket(const FlowKey& flow) {
  auto socket = makeTransparent(SOCK_DGRAM, flow.destination, 0);
  if (!socket) return socket;
  makeRoomForBursts(*socket, roomForOneFlow);
  const sockaddr_in application = flow.source.socketAddress();
  if (::connect(socket->get(), reinterpret_cast<const sockaddr*>(&application),
                sizeof application) != 0)
    return std::unexpected(errno);
  return socket;
}

/// Where a datagram was going before it was brought here.
std::optional<IPv4Endpoint> originalDestination(msghdr& message) {
  for (cmsghdr* control = CMSG_FIRSTHDR(&message); control != nullptr;
       control = CMSG_NXTHDR(&message, control)) {
    if (control->cmsg_level != SOL_IP || control->cmsg_type != IP_RECVORIGDSTADDR) continue;
    sockaddr_in address{};
    std::memcpy(&address, CMSG_DATA(control), sizeof address);
    return IPv4Endpoint::of(address);
  }
  return std::nullopt;
}

}  // namespace

std::expected<std::shared_ptr<TransparentListener>, int> TransparentListener::make(
    EpollLoop& loop, std::uint16_t port, std::shared_ptr<AnnouncedFlows> flows,
    FlowAnswers& answers) {
  const IPv4Endpoint local{INADDR_LOOPBACK, port};
  auto tcp = makeTransparent(SOCK_STREAM, local, SO_REUSEPORT);
  if (!tcp) return std::unexpected(tcp.error());
  auto udp = makeTransparent(SOCK_DGRAM, local, SO_REUSEPORT);
  if (!udp) return std::unexpected(udp.error());
  makeRoomForBursts(*udp, roomForHeld);
  // Accepted connections inherit all this.
  StreamSocket::prepare(*tcp);
  if (!setOption(*tcp, IPPROTO_TCP, TCP_NODELAY) || ::listen(tcp->get(), SOMAXCONN) != 0 ||
      !setOption(*udp, SOL_IP, IP_RECVORIGDSTADDR))
    return std::unexpected(errno);
  auto listener = makeResident<TransparentListener>(loop, std::move(flows), answers,
                                                    std::move(*tcp), std::move(*udp));
  if (const int error = listener->watch(); error != 0) return std::unexpected(error);
  return listener;
}

TransparentListener::TransparentListener(EpollLoop& loop, std::shared_ptr<AnnouncedFlows> flows,
                                         FlowAnswers& answers, FileDescriptor tcp,
                                         FileDescriptor udp)
    : flows_(std::move(flows)),
      answers_(answers),
      tcp_(std::move(tcp), EpollLoop::Call::to<&TransparentListener::accept>(this)),
      udp_(std::move(udp), EpollLoop::Call::to<&TransparentListener::receive>(this)),
      retry_(loop, EpollLoop::Call::to<&TransparentListener::accept>(this)) {
  settle(loop);
}

TransparentListener::~TransparentListener() {
  close();
}

int TransparentListener::watch() {
  return residence()->add(tcp_.get(), tcp_) && residence()->add(udp_.get(), udp_) ? 0 : errno;
}

void TransparentListener::close() noexcept {
  retry_.stop();
  tcp_.close(*residence());
  udp_.close(*residence());
}

void TransparentListener::Socket::close(EpollLoop& loop) noexcept {
  if (!descriptor_.isOpen()) return;
  loop.remove(descriptor_.get(), *this);
  descriptor_.reset();
}

void TransparentListener::accept() {
  for (;;) {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    FileDescriptor socket(::accept4(tcp_.get(), reinterpret_cast<sockaddr*>(&peer), &length,
                                    SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!socket.isOpen()) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      if (errno != EAGAIN) retry_.start(retryDelay);
      return;
    }
    // The destination that the application asked for is the accepted socket's own address.
    sockaddr_in local{};
    length = sizeof local;
    ::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&local), &length);
    const FlowKey key{.protocol = IPPROTO_TCP,
                      .source = IPv4Endpoint::of(peer),
                      .destination = IPv4Endpoint::of(local)};
    // What nobody has announced is reset.
    if (const auto flow = flows_->claim(key)) flow->attach(*residence(), std::move(socket));
  }
}

void TransparentListener::receive() {
  constexpr std::size_t longestDatagram = std::size_t{64} * 1024;
  thread_local std::vector<std::uint8_t> room(longestDatagram);
  for (;;) {
    sockaddr_in peer{};
    iovec piece{room.data(), room.size()};
    alignas(cmsghdr) std::array<char, 128> control{};
    msghdr message{};
    message.msg_name = &peer;
    message.msg_namelen = sizeof peer;
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t count = ::recvmsg(udp_.get(), &message, MSG_DONTWAIT);
    if (count < 0) {
      if (errno == EINTR) continue;
      break;
    }
    const auto destination = originalDestination(message);
    if (!destination) continue;
    const FlowKey key{
        .protocol = IPPROTO_UDP, .source = IPv4Endpoint::of(peer), .destination = *destination};
    const auto [flow, isFirst] = flows_->recipient(key);
    if (flow == nullptr) {
      // Its flow has ended; the next datagram is a new flow's first.
      answers_.forget(key);
      continue;
    }
    if (isFirst) attachNew(flow);
    flow->inject(Data::copying(std::span(room).first(static_cast<std::size_t>(count))));
  }
  // From when its socket was made, a flow's datagrams go there; those that were here are read
  // first.
  for (auto& [flow, socket] : std::exchange(arriving_, {})) {
    flow->useSocket(std::move(socket));
    if (flows_->attached(flow->key())) flow->end();
  }
}

void TransparentListener::attachNew(const std::shared_ptr<SocketUDPFlow>& flow) {
  auto socket = makeFlowSocket(flow->key());
  flow->attach(*residence());
  arriving_.emplace_back(flow, socket ? std::move(*socket) : FileDescriptor());
}

}  // namespace tandor
