#include "platform/linux/NetlinkDump.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <vector>

namespace tandor {

std::expected<void, int> dumpNetlink(int bus, std::uint16_t type, std::span<const std::byte> body,
                                     const std::function<void(const nlmsghdr&)>& visit) {
  const std::unique_ptr<mnl_socket, decltype(&::mnl_socket_close)> socket(
      ::mnl_socket_open2(bus, SOCK_CLOEXEC), &::mnl_socket_close);
  if (socket == nullptr || ::mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) != 0)
    return std::unexpected(errno);

  alignas(nlmsghdr) std::array<std::byte, 256> request{};
  nlmsghdr* header = ::mnl_nlmsg_put_header(request.data());
  header->nlmsg_type = type;
  header->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  header->nlmsg_seq = 1;
  std::ranges::copy(body,
                    static_cast<std::byte*>(::mnl_nlmsg_put_extra_header(header, body.size())));
  if (::mnl_socket_sendto(socket.get(), header, header->nlmsg_len) < 0)
    return std::unexpected(errno);

  std::vector<std::byte> answer(std::size_t{64} * 1024);
  const auto callback = [](const nlmsghdr* message, void* target) {
    (*static_cast<const std::function<void(const nlmsghdr&)>*>(target))(*message);
    return MNL_CB_OK;
  };
  // The library hands the pointer back without writing through it.
  void* target = const_cast<std::function<void(const nlmsghdr&)>*>(&visit);  // NOLINT(*-const-cast)
  for (;;) {
    const ssize_t count = ::mnl_socket_recvfrom(socket.get(), answer.data(), answer.size());
    if (count < 0) return std::unexpected(errno);
    const int result = ::mnl_cb_run(answer.data(), static_cast<std::size_t>(count), 1,
                                    ::mnl_socket_get_portid(socket.get()), callback, target);
    if (result < 0) return std::unexpected(errno);
    if (result == MNL_CB_STOP) return {};
  }
}

}  // namespace tandor
