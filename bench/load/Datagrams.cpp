#include "load/Datagrams.h"

#include <algorithm>

namespace tandor::load {

DatagramBatch::DatagramBatch() {
  for (std::size_t index = 0; index < capacity; ++index) {
    msghdr& header = messages_[index].msg_hdr;
    header.msg_iov = &pieces_[index];
    header.msg_iovlen = 1;
    pieces_[index].iov_base = rooms_[index].data();
  }
}

std::size_t DatagramBatch::receive(int socket) {
  for (std::size_t index = 0; index < capacity; ++index) {
    messages_[index].msg_hdr.msg_name = &addresses_[index];
    messages_[index].msg_hdr.msg_namelen = sizeof addresses_[index];
    pieces_[index].iov_len = longest;
  }
  const int count = ::recvmmsg(socket, messages_.data(), capacity, MSG_DONTWAIT, nullptr);
  received_ = static_cast<std::size_t>(std::max(count, 0));
  return received_;
}

void DatagramBatch::sendBack(int socket) {
  if (received_ == 0) return;
  for (std::size_t index = 0; index < received_; ++index)
    pieces_[index].iov_len = messages_[index].msg_len;
  ::sendmmsg(socket, messages_.data(), static_cast<unsigned>(received_), MSG_DONTWAIT);
}

std::size_t DatagramBatch::send(int socket, std::size_t count, std::size_t size) {
  count = std::min(count, capacity);
  for (std::size_t index = 0; index < count; ++index) {
    messages_[index].msg_hdr.msg_name = nullptr;
    messages_[index].msg_hdr.msg_namelen = 0;
    pieces_[index].iov_len = std::min(size, longest);
  }
  const int sent = ::sendmmsg(socket, messages_.data(), static_cast<unsigned>(count), 0);
  return static_cast<std::size_t>(std::max(sent, 0));
}

}  // namespace tandor::load
