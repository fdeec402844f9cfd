#include "platform/linux/PacketQueue.h"

#include <cerrno>
#include <cstring>
#include <linux/netfilter.h>
#include <linux/netfilter/nfnetlink_queue.h>
#include <netinet/ip.h>
#include <sys/socket.h>
#include <utility>

#include <libmnl/libmnl.h>
#include <libnetfilter_queue/libnetfilter_queue.h>

#include "platform/linux/Marks.h"

namespace tandor {
namespace {

constexpr std::uint32_t copiedBytes = 96;  // the longest IPv4 header with the ports behind it
constexpr int queueLength = 4096;
constexpr int receiveBuffer = 4 * 1024 * 1024;

/// The flow that an IPv4 packet belongs to, from its first bytes; protocol 0 when it is none of
/// ours.
FlowKey flowOf(std::span<const std::byte> bytes) noexcept {
  constexpr std::size_t shortestHeader = 20;
  constexpr std::size_t portBytes = 4;
  if (bytes.size() < shortestHeader) return {};
  const auto at = [&](std::size_t index) { return std::to_integer<std::uint32_t>(bytes[index]); };
  const std::size_t headerLength = std::size_t{at(0) & 0xF} * 4;
  if (at(0) >> 4 != 4 || headerLength < shortestHeader || bytes.size() < headerLength + portBytes)
    return {};
  const std::uint32_t protocol = at(9);
  const bool isLaterFragment = ((at(6) & 0x1F) << 8 | at(7)) != 0;
  if ((protocol != IPPROTO_TCP && protocol != IPPROTO_UDP) || isLaterFragment) return {};
  const auto address = [&](std::size_t index) {
    return at(index) << 24 | at(index + 1) << 16 | at(index + 2) << 8 | at(index + 3);
  };
  const auto port = [&](std::size_t index) {
    return static_cast<std::uint16_t>(at(index) << 8 | at(index + 1));
  };
  return {.protocol = static_cast<std::uint8_t>(protocol),
          .source = {address(12), port(headerLength)},
          .destination = {address(16), port(headerLength + 2)}};
}

/// Sends one configuration message and waits for the kernel's answer.
std::expected<void, int> configure(mnl_socket* socket, nlmsghdr& message) {
  message.nlmsg_flags |= NLM_F_ACK;
  std::array<char, 4096> answer{};
  if (::mnl_socket_sendto(socket, &message, message.nlmsg_len) < 0) return std::unexpected(errno);
  const ssize_t length = ::mnl_socket_recvfrom(socket, answer.data(), answer.size());
  if (length < 0 || ::mnl_cb_run(answer.data(), static_cast<std::size_t>(length), 0,
                                 ::mnl_socket_get_portid(socket), nullptr, nullptr) < 0)
    return std::unexpected(errno);
  return {};
}

std::expected<std::unique_ptr<mnl_socket, int (*)(mnl_socket*)>, int> openSocket() {
  std::unique_ptr<mnl_socket, int (*)(mnl_socket*)> socket(
      ::mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC), &::mnl_socket_close);
  if (socket == nullptr || ::mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) != 0)
    return std::unexpected(errno);
  return socket;
}

/// Packets that are too many pass unasked rather than get lost; segmentation stays with the device.
void putLengthAndFlags(nlmsghdr& message, std::uint32_t length) {
  constexpr std::uint32_t flags = NFQA_CFG_F_GSO | NFQA_CFG_F_FAIL_OPEN;
  ::nfq_nlmsg_cfg_put_qmaxlen(&message, length);
  ::mnl_attr_put_u32(&message, NFQA_CFG_FLAGS, htonl(flags));
  ::mnl_attr_put_u32(&message, NFQA_CFG_MASK, htonl(flags));
}

}  // namespace

std::expected<PacketQueue::Hold, int> PacketQueue::Hold::make(std::uint16_t number) {
  auto socket = openSocket();
  if (!socket) return std::unexpected(socket.error());
  // All in one message, so that no packet is held: there is nobody to let it go.
  alignas(nlmsghdr) std::array<char, 512> buffer{};
  nlmsghdr* bind = ::nfq_nlmsg_put(buffer.data(), NFQNL_MSG_CONFIG, number);
  ::nfq_nlmsg_cfg_put_cmd(bind, AF_INET, NFQNL_CFG_CMD_BIND);
  putLengthAndFlags(*bind, 0);
  if (auto bound = configure(socket->get(), *bind); !bound) return std::unexpected(bound.error());
  return Hold(std::move(*socket));
}

std::expected<std::unique_ptr<PacketQueue>, int> PacketQueue::make(EpollLoop& loop,
                                                                   std::uint16_t number,
                                                                   Owner& owner) {
  auto opened = openSocket();
  if (!opened) return std::unexpected(opened.error());
  Socket socket = std::move(*opened);

  alignas(nlmsghdr) std::array<char, 512> buffer{};
  nlmsghdr* bind = ::nfq_nlmsg_put(buffer.data(), NFQNL_MSG_CONFIG, number);
  ::nfq_nlmsg_cfg_put_cmd(bind, AF_INET, NFQNL_CFG_CMD_BIND);
  if (auto bound = configure(socket.get(), *bind); !bound) return std::unexpected(bound.error());

  nlmsghdr* settings = ::nfq_nlmsg_put(buffer.data(), NFQNL_MSG_CONFIG, number);
  ::nfq_nlmsg_cfg_put_params(settings, NFQNL_COPY_PACKET, copiedBytes);
  putLengthAndFlags(*settings, queueLength);
  if (auto set = configure(socket.get(), *settings); !set) return std::unexpected(set.error());

  const int descriptor = ::mnl_socket_get_fd(socket.get());
  const int on = 1;
  ::setsockopt(descriptor, SOL_NETLINK, NETLINK_NO_ENOBUFS, &on, sizeof on);
  ::setsockopt(descriptor, SOL_SOCKET, SO_RCVBUFFORCE, &receiveBuffer, sizeof receiveBuffer);
  // The constructor is private: only a bound queue is ever made.
  std::unique_ptr<PacketQueue> queue(
      new PacketQueue(loop, std::move(socket), number, owner));  // NOLINT(*-owning-memory)
  if (!loop.add(descriptor, *queue)) return std::unexpected(errno);
  return queue;
}

PacketQueue::PacketQueue(EpollLoop& loop, Socket socket, std::uint16_t number, Owner& owner)
    : loop_(loop),
      owner_(owner),
      socket_(std::move(socket)),
      number_(number),
      messages_(batchSize),
      pieces_(batchSize),
      headers_(batchSize) {
  for (std::size_t index = 0; index < batchSize; ++index) {
    pieces_[index] = {messages_[index].data(), messages_[index].size()};
    headers_[index].msg_hdr.msg_iov = &pieces_[index];
    headers_[index].msg_hdr.msg_iovlen = 1;
  }
}

PacketQueue::~PacketQueue() {
  loop_.remove(::mnl_socket_get_fd(socket_.get()), *this);
}

void PacketQueue::ready(std::uint32_t events) {
  if ((events & EPOLLIN) != 0) receive();
}

void PacketQueue::receive() {
  const int count = receiveSome();
  // Fewer than asked for were all: the next one is announced by a new edge.
  if (count == batchSize || (count < 0 && errno != EAGAIN)) loop_.defer(receive_);
}

int PacketQueue::receiveSome() {
  const int count = ::recvmmsg(::mnl_socket_get_fd(socket_.get()), headers_.data(), batchSize,
                               MSG_DONTWAIT, nullptr);
  for (int index = 0; index < count; ++index) {
    const auto place = static_cast<std::size_t>(index);
    const auto* message = reinterpret_cast<const nlmsghdr*>(messages_[place].data());
    if (::mnl_nlmsg_ok(message, static_cast<int>(headers_[place].msg_len))) handle(*message);
  }
  return count;
}

void PacketQueue::drain() {
  // What is not read by then comes from somewhere that still queues; it must not keep us.
  constexpr int mostBatches = 2 * queueLength / batchSize;
  for (int batch = 0; batch < mostBatches && receiveSome() > 0; ++batch) sendVerdicts();
  sendVerdicts();
}

void PacketQueue::handle(const nlmsghdr& message) {
  if (message.nlmsg_type != (NFNL_SUBSYS_QUEUE << 8 | NFQNL_MSG_PACKET)) return;
  std::array<nlattr*, NFQA_MAX + 1> attributes{};
  if (::nfq_nlmsg_parse(&message, attributes.data()) < 0 || attributes[NFQA_PACKET_HDR] == nullptr)
    return;
  const auto number = [&](int type) {
    return attributes[static_cast<std::size_t>(type)] == nullptr
               ? 0
               : ntohl(::mnl_attr_get_u32(attributes[static_cast<std::size_t>(type)]));
  };
  const auto* header =
      static_cast<const nfqnl_msg_packet_hdr*>(::mnl_attr_get_payload(attributes[NFQA_PACKET_HDR]));
  Packet packet{.id = ntohl(header->packet_id),
                .mark = number(NFQA_MARK),
                .interface = number(NFQA_IFINDEX_OUTDEV),
                .flow = {}};
  if (const nlattr* payload = attributes[NFQA_PAYLOAD]) {
    packet.flow = flowOf({static_cast<const std::byte*>(::mnl_attr_get_payload(payload)),
                          ::mnl_attr_get_payload_len(payload)});
  }
  owner_.packetArrived(packet);
}

void PacketQueue::accept(const Packet& packet, std::uint32_t decision) {
  alignas(nlmsghdr) std::array<char, 128> buffer{};
  nlmsghdr* message = ::nfq_nlmsg_put(buffer.data(), NFQNL_MSG_VERDICT, number_);
  ::nfq_nlmsg_verdict_put(message, static_cast<int>(packet.id), NF_ACCEPT);
  // Another mark makes the kernel look for the packet's route again.
  if (decision != leaveMark)
    ::nfq_nlmsg_verdict_put_mark(message, (packet.mark & ~markMask) | decision);
  const auto* bytes = reinterpret_cast<const std::byte*>(message);
  verdicts_.insert(verdicts_.end(), bytes, bytes + NLMSG_ALIGN(message->nlmsg_len));
  loop_.schedule(send_);
}

void PacketQueue::sendVerdicts() {
  if (verdicts_.empty()) return;
  while (::mnl_socket_sendto(socket_.get(), verdicts_.data(), verdicts_.size()) < 0 &&
         errno == EINTR) {
  }
  verdicts_.clear();
  owner_.packetsWentOn();
}

}  // namespace tandor
