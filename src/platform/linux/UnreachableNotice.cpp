#include "platform/linux/UnreachableNotice.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <netinet/ip.h>
#include <netinet/ip_icmp.h>
#include <netinet/udp.h>
#include <optional>
#include <span>
#include <sys/socket.h>

#include "platform/linux/FileDescriptor.h"
#include "platform/linux/Marks.h"

namespace tandor {
namespace {

/// The code that makes the kernel report `error` to a connected socket. Of several that do, one
/// that is not taken for passing trouble.
std::optional<std::uint8_t> codeFor(int error) noexcept {
  switch (error) {
    case ECONNREFUSED:
      return ICMP_PORT_UNREACH;
    case ENOPROTOOPT:
      return ICMP_PROT_UNREACH;
    case EHOSTUNREACH:
      return ICMP_PKT_FILTERED;
    case ENETUNREACH:
      return ICMP_NET_UNKNOWN;
    case EHOSTDOWN:
      return ICMP_HOST_UNKNOWN;
    default:
      return std::nullopt;
  }
}

/// The sum that IPv4 and ICMP protect their headers with.
std::uint16_t checksum(std::span<const std::byte> bytes) noexcept {
  std::uint32_t sum = 0;
  for (std::size_t index = 0; index + 1 < bytes.size(); index += 2) {
    std::uint16_t word = 0;
    std::memcpy(&word, &bytes[index], sizeof word);
    sum += word;
  }
  while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
  return static_cast<std::uint16_t>(~sum);
}

iphdr header(const IPv4Endpoint& source, const IPv4Endpoint& destination, std::uint8_t protocol,
             std::size_t length) noexcept {
  constexpr std::uint8_t hops = 64;
  iphdr header{};
  header.version = IPVERSION;
  header.ihl = sizeof header / 4;
  header.tot_len = htons(static_cast<std::uint16_t>(length));
  header.ttl = hops;
  header.protocol = protocol;
  header.saddr = htonl(source.address);
  header.daddr = htonl(destination.address);
  header.check = checksum(std::as_bytes(std::span(&header, 1)));
  return header;
}

}  // namespace

void sendUnreachableNotice(const FlowKey& flow, int error) noexcept {
  const auto code = codeFor(error);
  if (!code) return;
  /// As much of the application's datagram as says whose it was.
  struct Quotation {
    iphdr ip;
    udphdr udp;
  };
  struct {
    iphdr ip;
    icmphdr icmp;
    Quotation about;
  } notice{};
  notice.ip = header(flow.destination, flow.source, IPPROTO_ICMP, sizeof notice);
  notice.icmp.type = ICMP_DEST_UNREACH;
  notice.icmp.code = *code;
  notice.about.ip = header(flow.source, flow.destination, IPPROTO_UDP, sizeof notice.about);
  notice.about.udp.source = htons(flow.source.port);
  notice.about.udp.dest = htons(flow.destination.port);
  notice.about.udp.len = htons(sizeof notice.about.udp);
  notice.icmp.checksum = checksum(std::as_bytes(std::span(&notice, 1)).subspan(sizeof notice.ip));

  const FileDescriptor socket(
      ::socket(AF_INET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_RAW));
  ::setsockopt(socket.get(), SOL_SOCKET, SO_MARK, &bypassMark, sizeof bypassMark);
  const sockaddr_in application = flow.source.socketAddress();
  // Who does not get the notice waits, as if it had been lost on its way.
  static_cast<void>(::sendto(socket.get(), &notice, sizeof notice, MSG_DONTWAIT | MSG_NOSIGNAL,
                             reinterpret_cast<const sockaddr*>(&application), sizeof application));
}

}  // namespace tandor
