#pragma once

#include <array>
#include <cstddef>
#include <netinet/in.h>
#include <sys/socket.h>

namespace tandor::load {

/// Datagrams that are received or sent with one system call.
class DatagramBatch {
 public:
  static constexpr std::size_t capacity = 32;
  DatagramBatch();
  DatagramBatch(const DatagramBatch&) = delete;
  DatagramBatch& operator=(const DatagramBatch&) = delete;
  ~DatagramBatch() = default;

  /// Receives what is there, without waiting; how many.
  std::size_t receive(int socket);
  /// To where each came from.
  void sendBack(int socket);
  /// Sends `count` datagrams of `size` bytes on a connected socket; how many went.
  std::size_t send(int socket, std::size_t count, std::size_t size);

 private:
  static constexpr std::size_t longest = 2048;
  std::array<mmsghdr, capacity> messages_{};
  std::array<iovec, capacity> pieces_{};
  std::array<sockaddr_in, capacity> addresses_{};
  std::array<std::array<char, longest>, capacity> rooms_{};
  std::size_t received_ = 0;
};

}  // namespace tandor::load
