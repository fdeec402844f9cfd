#include "platform/linux/SocketDiagnosis.h"

#include <array>
#include <cerrno>
#include <linux/inet_diag.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <utility>

#include <libmnl/libmnl.h>

#include "platform/linux/NetlinkDump.h"

namespace tandor {
namespace {

std::uint64_t cookieOf(const inet_diag_msg& message) noexcept {
  return std::uint64_t{message.id.idiag_cookie[1]} << 32 | message.id.idiag_cookie[0];
}

}  // namespace

std::expected<SocketDiagnosis, int> SocketDiagnosis::make() {
  // The kernel answers before it returns from the question: what is not there then never comes.
  Socket socket(::mnl_socket_open2(NETLINK_SOCK_DIAG, SOCK_CLOEXEC | SOCK_NONBLOCK),
                &::mnl_socket_close);
  if (socket == nullptr || ::mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) != 0)
    return std::unexpected(errno);
  return SocketDiagnosis(std::move(socket));
}

std::optional<SocketFacts> SocketDiagnosis::find(const FlowKey& flow, std::uint32_t interface) {
  struct {
    nlmsghdr header;
    inet_diag_req_v2 request;
  } question{};
  question.header.nlmsg_len = sizeof question;
  question.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  question.header.nlmsg_flags = NLM_F_REQUEST;
  question.header.nlmsg_seq = ++sequence_;
  question.request.sdiag_family = AF_INET;  // IPv4-mapped sockets are found with it, too
  question.request.sdiag_protocol = flow.protocol;
  question.request.idiag_states = ~0U;
  auto source = flow.source;
  auto destination = flow.destination;
  // For UDP the kernel looks the socket up as a receiver of the datagram's answer would be.
  if (flow.protocol == IPPROTO_UDP) std::swap(source, destination);
  auto& id = question.request.id;
  id.idiag_src[0] = htonl(source.address);
  id.idiag_sport = htons(source.port);
  id.idiag_dst[0] = htonl(destination.address);
  id.idiag_dport = htons(destination.port);
  id.idiag_if = interface;  // or sockets that are bound to it are not found
  id.idiag_cookie[0] = id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
  if (::mnl_socket_sendto(socket_.get(), &question, sizeof question) < 0) return std::nullopt;

  alignas(nlmsghdr) std::array<char, 1024> answer;
  for (;;) {
    const ssize_t length = ::mnl_socket_recvfrom(socket_.get(), answer.data(), answer.size());
    if (length < 0) return std::nullopt;
    const auto& header = *reinterpret_cast<const nlmsghdr*>(answer.data());
    if (!::mnl_nlmsg_ok(&header, static_cast<int>(length))) return std::nullopt;
    if (header.nlmsg_seq != sequence_) continue;  // an answer that an error made us give up
    if (header.nlmsg_type != SOCK_DIAG_BY_FAMILY) return std::nullopt;
    const auto& message = *static_cast<const inet_diag_msg*>(::mnl_nlmsg_get_payload(&header));
    SocketFacts facts{.inode = message.idiag_inode,
                      .cookie = cookieOf(message),
                      .cgroup = 0,
                      .interface = message.id.idiag_if};
    forEachAttribute(header, sizeof message, [&](const nlattr& attribute) {
      if (::mnl_attr_get_type(&attribute) == INET_DIAG_CGROUP_ID)
        facts.cgroup = ::mnl_attr_get_u64(&attribute);
    });
    return facts;
  }
}

std::expected<std::vector<std::uint64_t>, int> SocketDiagnosis::findGone(
    std::span<const UDPSocket> sockets) {
  const auto present = udpSockets();
  if (!present) return std::unexpected(present.error());
  auto diagnosis = make();
  if (!diagnosis) return std::unexpected(diagnosis.error());
  std::vector<std::uint64_t> gone;
  for (const UDPSocket& socket : sockets) {
    if (present->contains(socket.cookie)) continue;
    // A list that is made while others come and go may lack one that was there all the time.
    const auto found = diagnosis->find(socket.flow, 0);
    if (!found || found->cookie != socket.cookie) gone.push_back(socket.cookie);
  }
  return gone;
}

std::expected<std::unordered_set<std::uint64_t>, int> SocketDiagnosis::udpSockets() {
  std::unordered_set<std::uint64_t> cookies;
  for (const std::uint8_t family : {std::uint8_t{AF_INET}, std::uint8_t{AF_INET6}}) {
    inet_diag_req_v2 all{};
    all.sdiag_family = family;
    all.sdiag_protocol = IPPROTO_UDP;
    all.idiag_states = ~0U;
    auto dumped = dumpNetlink(NETLINK_SOCK_DIAG, SOCK_DIAG_BY_FAMILY,
                              std::as_bytes(std::span(&all, 1)), [&](const nlmsghdr& message) {
                                cookies.insert(cookieOf(*static_cast<const inet_diag_msg*>(
                                    ::mnl_nlmsg_get_payload(&message))));
                              });
    if (!dumped && dumped.error() != ENOENT) return std::unexpected(dumped.error());
  }
  return cookies;
}

}  // namespace tandor
