#include "platform/linux/TransparentListener.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <linux/filter.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <utility>
#include <vector>

#include "platform/linux/DatagramSocket.h"
#include "platform/linux/StreamSocket.h"

namespace tandor {
namespace {

/// Out of descriptors: how long until the next try.
constexpr auto retryDelay = std::chrono::milliseconds(100);
/// So many connections and so many datagrams in one turn of the loop; then others have theirs.
constexpr int mostInATurn = 64;
/// Room for the datagrams that the packet queue lets go at once.
constexpr int roomForHeld = 4 * 1024 * 1024;
/// So many may wait there: the kernel doubles the number that it is given, and counts more than
/// this for each, however small.
constexpr std::uint64_t mostHeld = 2 * roomForHeld / 512;

bool setOption(const FileDescriptor& socket, int level, int option) {
  const int on = 1;
  return ::setsockopt(socket.get(), level, option, &on, sizeof on) == 0;
}

/// With `sharing`, several sockets can be bound to `local` that allow it, too.
std::expected<FileDescriptor, int> makeTransparent(int type, const IPv4Endpoint& local,
                                                   int sharing) {
  FileDescriptor socket(::socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const sockaddr_in address = local.socketAddress();
  if (!socket.isOpen() || (sharing != 0 && !setOption(socket, SOL_SOCKET, sharing)) ||
      !setOption(socket, SOL_IP, IP_TRANSPARENT) ||
      ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    return std::unexpected(errno);
  return socket;
}

/// One of the sockets that share a port of the loopback address with each other, and with nobody
/// else: SO_REUSEPORT lets in none of another user, SO_REUSEADDR everybody. Where the kernel
/// chooses, sharing is allowed afterwards only, lest it chooses a port that somebody shares.
std::expected<FileDescriptor, int> makeListening(int type, std::uint16_t port) {
  auto socket = makeTransparent(type, {INADDR_LOOPBACK, port}, port != 0 ? SO_REUSEPORT : 0);
  if (socket && port == 0 && !setOption(*socket, SOL_SOCKET, SO_REUSEPORT))
    return std::unexpected(errno);
  return socket;
}

std::uint16_t portOf(int socket) noexcept {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.sin_port);
}

/// Whoever sends to the listener itself takes no room from what is brought to it.
bool takeOnlyWhatIsBrought(const FileDescriptor& udp) {
  constexpr auto destination = static_cast<std::uint32_t>(SKF_NET_OFF + 16);  // in the IPv4 header
  std::array<sock_filter, 4> steps{{{BPF_LD | BPF_W | BPF_ABS, 0, 0, destination},
                                    {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, INADDR_LOOPBACK},
                                    {BPF_RET | BPF_K, 0, 0, 0},
                                    {BPF_RET | BPF_K, 0, 0, ~0U}}};
  const sock_fprog filter{static_cast<unsigned short>(steps.size()), steps.data()};
  return ::setsockopt(udp.get(), SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) == 0;
}

/// The socket of one UDP flow: what the application sends to the destination arrives there, and
/// what it sends comes from the destination.
std::expected<FileDescriptor, int> makeFlowSocket(const FlowKey& flow) {
  auto socket = makeTransparent(SOCK_DGRAM, flow.destination, SO_REUSEADDR);
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
    EpollLoop& loop, const ListenerPorts& ports, std::shared_ptr<AnnouncedFlows> flows,
    FlowAnswers& answers) {
  auto tcp = makeListening(SOCK_STREAM, ports.tcp);
  if (!tcp) return std::unexpected(tcp.error());
  auto udp = makeListening(SOCK_DGRAM, ports.udp);
  if (!udp) return std::unexpected(udp.error());
  makeRoomForBursts(*udp, roomForHeld);
  // Accepted connections inherit all this. They stand at their destinations' ports, where servers
  // of this machine must still be able to; no other socket can be where one listens.
  StreamSocket::prepare(*tcp);
  if (!setOption(*tcp, IPPROTO_TCP, TCP_NODELAY) || ::listen(tcp->get(), SOMAXCONN) != 0 ||
      !setOption(*tcp, SOL_SOCKET, SO_REUSEADDR) || !setOption(*udp, SOL_IP, IP_RECVORIGDSTADDR) ||
      !takeOnlyWhatIsBrought(*udp))
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
      acceptLater_(loop, EpollLoop::Call::to<&TransparentListener::accept>(this)),
      receiveLater_(loop, EpollLoop::Call::to<&TransparentListener::receive>(this)) {
  settle(loop);
}

TransparentListener::~TransparentListener() {
  close();
}

int TransparentListener::watch() {
  return residence()->add(tcp_.get(), tcp_) && residence()->add(udp_.get(), udp_) ? 0 : errno;
}

ListenerPorts TransparentListener::ports() const noexcept {
  return {.tcp = portOf(tcp_.get()), .udp = portOf(udp_.get())};
}

void TransparentListener::close() noexcept {
  acceptLater_.stop();
  receiveLater_.stop();
  for (; !arriving_.empty(); arriving_.pop_front()) arriving_.front().flow->abandon();
  tcp_.close(*residence());
  udp_.close(*residence());
}

void TransparentListener::Socket::close(EpollLoop& loop) noexcept {
  if (!descriptor_.isOpen()) return;
  loop.remove(descriptor_.get(), *this);
  descriptor_.reset();
}

void TransparentListener::accept() {
  for (int round = 0; round < mostInATurn; ++round) {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    FileDescriptor socket(::accept4(tcp_.get(), reinterpret_cast<sockaddr*>(&peer), &length,
                                    SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!socket.isOpen()) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      if (errno != EAGAIN) acceptLater_.start(retryDelay);
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
  acceptLater_.start({});
}

void TransparentListener::receive() {
  bool isEmpty = false;
  for (int round = 0; round < mostInATurn && !isEmpty; ++round) isEmpty = !receiveOne();
  while (!arriving_.empty() && (isEmpty || arriving_.front().received <= received_))
    completeArrival();
  if (!isEmpty) receiveLater_.start({});
}

bool TransparentListener::receiveOne() {
  constexpr std::size_t longestDatagram = std::size_t{64} * 1024;
  thread_local std::vector<std::uint8_t> room(longestDatagram);
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
  if (count < 0) return errno == EINTR;
  ++received_;
  const auto destination = originalDestination(message);
  if (!destination) return true;
  const FlowKey key{
      .protocol = IPPROTO_UDP, .source = IPv4Endpoint::of(peer), .destination = *destination};
  const auto [flow, isFirst] = flows_->recipient(key);
  if (flow == nullptr) {
    // Its flow has ended; the next datagram is a new flow's first.
    answers_.forget(key);
    return true;
  }
  if (isFirst) attachNew(flow);
  flow->inject(Data::copying(std::span(room).first(static_cast<std::size_t>(count))));
  return true;
}

void TransparentListener::attachNew(const std::shared_ptr<SocketUDPFlow>& flow) {
  auto socket = makeFlowSocket(flow->key());
  flow->attach(*residence());
  arriving_.emplace_back(flow, socket ? std::move(*socket) : FileDescriptor(),
                         received_ + mostHeld);
}

void TransparentListener::completeArrival() {
  Arrival arrival = std::move(arriving_.front());
  arriving_.pop_front();
  const auto& flow = arrival.flow;
  flow->useSocket(std::move(arrival.socket));
  if (flows_->attached(flow->key())) flow->end();
}

}  // namespace tandor
