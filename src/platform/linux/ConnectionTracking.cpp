#include "platform/linux/ConnectionTracking.h"

#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>

#include "platform/linux/Marks.h"
#include "platform/linux/NetlinkRequest.h"

namespace tandor {
namespace {

constexpr auto deleteTracked =
    static_cast<std::uint16_t>(NFNL_SUBSYS_CTNETLINK << 8 | IPCTNL_MSG_CT_DELETE);

void beginDelete(NetlinkRequest& request) {
  auto& body = request.body<nfgenmsg>();
  body.nfgen_family = AF_INET;
  body.version = NFNETLINK_V0;
}

}  // namespace

void ConnectionTracking::forget(const FlowKey& flow) {
  NetlinkRequest request(deleteTracked, 0);
  beginDelete(request);
  nlmsghdr* header = &request.header();
  nlattr* tuple = ::mnl_attr_nest_start(header, CTA_TUPLE_ORIG);
  nlattr* addresses = ::mnl_attr_nest_start(header, CTA_TUPLE_IP);
  ::mnl_attr_put_u32(header, CTA_IP_V4_SRC, htonl(flow.source.address));
  ::mnl_attr_put_u32(header, CTA_IP_V4_DST, htonl(flow.destination.address));
  ::mnl_attr_nest_end(header, addresses);
  nlattr* protocol = ::mnl_attr_nest_start(header, CTA_TUPLE_PROTO);
  ::mnl_attr_put_u8(header, CTA_PROTO_NUM, flow.protocol);
  ::mnl_attr_put_u16(header, CTA_PROTO_SRC_PORT, htons(flow.source.port));
  ::mnl_attr_put_u16(header, CTA_PROTO_DST_PORT, htons(flow.destination.port));
  ::mnl_attr_nest_end(header, protocol);
  ::mnl_attr_nest_end(header, tuple);
  static_cast<void>(request.send(NETLINK_NETFILTER));
}

std::expected<void, int> ConnectionTracking::forgetTaken() {
  NetlinkRequest request(deleteTracked, 0);
  beginDelete(request);
  ::mnl_attr_put_u32(&request.header(), CTA_MARK, htonl(takeMark));
  ::mnl_attr_put_u32(&request.header(), CTA_MARK_MASK, htonl(markMask));
  return request.send(NETLINK_NETFILTER);
}

}  // namespace tandor
