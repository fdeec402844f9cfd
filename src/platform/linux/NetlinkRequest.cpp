#include "platform/linux/NetlinkRequest.h"

#include <cerrno>
#include <memory>

namespace tandor {

std::expected<void, int> NetlinkRequest::send(int bus) const {
  const std::unique_ptr<mnl_socket, decltype(&::mnl_socket_close)> socket(
      ::mnl_socket_open2(bus, SOCK_CLOEXEC), &::mnl_socket_close);
  if (socket == nullptr || ::mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) != 0 ||
      ::mnl_socket_sendto(socket.get(), header_, header_->nlmsg_len) < 0)
    return std::unexpected(errno);
  std::array<char, 4096> answer{};
  const ssize_t length = ::mnl_socket_recvfrom(socket.get(), answer.data(), answer.size());
  if (length < 0 ||
      ::mnl_cb_run(answer.data(), static_cast<std::size_t>(length), header_->nlmsg_seq,
                   ::mnl_socket_get_portid(socket.get()), nullptr, nullptr) < 0)
    return std::unexpected(errno);
  return {};
}

}  // namespace tandor
