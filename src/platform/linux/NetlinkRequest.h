#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <expected>

#include <libmnl/libmnl.h>

namespace tandor {

/// One request to the kernel over netlink, built in place and answered by an acknowledgement.
class NetlinkRequest {
 public:
  NetlinkRequest(std::uint16_t type, std::uint16_t flags) noexcept
      : header_(::mnl_nlmsg_put_header(buffer_.data())) {
    header_->nlmsg_type = type;
    header_->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | NLM_F_ACK | flags);
    header_->nlmsg_seq = 1;
  }
  NetlinkRequest(const NetlinkRequest&) = delete;
  NetlinkRequest& operator=(const NetlinkRequest&) = delete;
  ~NetlinkRequest() = default;

  /// Adds the fixed header of the request's kind, zeroed. First.
  template <typename Body>
  Body& body() noexcept {
    return *static_cast<Body*>(::mnl_nlmsg_put_extra_header(header_, sizeof(Body)));
  }
  [[nodiscard]] nlmsghdr& header() noexcept { return *header_; }

  /// Sends it on the given bus (NETLINK_*) and waits for the answer. Fails with an error number.
  [[nodiscard]] std::expected<void, int> send(int bus) const;

 private:
  alignas(nlmsghdr) std::array<char, 512> buffer_{};
  nlmsghdr* header_;
};

}  // namespace tandor
