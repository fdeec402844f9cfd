#include "platform/linux/OlderTables.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <linux/netfilter_ipv4/ip_tables.h>
#include <string_view>
#include <sys/socket.h>

#include "platform/linux/FileDescriptor.h"

namespace tandor {

OlderTables olderTablesNow() {
  OlderTables tables{};
  auto* next = tables.begin();
  const FileDescriptor socket(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW));
  for (const std::string_view name : {"mangle", "filter"}) {
    ipt_getinfo info{};
    std::ranges::copy(name, info.name);
    socklen_t length = sizeof info;
    if (!socket.isOpen() ||
        ::getsockopt(socket.get(), IPPROTO_IP, IPT_SO_GET_INFO, &info, &length) != 0)
      return {};
    next = std::ranges::copy(info.hook_entry, next).out;
    next = std::ranges::copy(info.underflow, next).out;
    *next++ = info.num_entries;
    *next++ = info.size;
  }
  return tables;
}

}  // namespace tandor
