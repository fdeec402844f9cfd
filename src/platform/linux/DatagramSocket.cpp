#include "platform/linux/DatagramSocket.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <sys/socket.h>
#include <sys/uio.h>
#include <utility>

namespace tandor {
namespace {

constexpr std::size_t batchSize = 32;
constexpr std::size_t longestDatagram = std::size_t{64} * 1024;

/// Where a thread receives its batches before they are packed; only pages that datagrams really
/// reach become memory.
struct Arena {
  using Slot = std::array<std::uint8_t, longestDatagram>;

  Arena() {
    for (std::size_t index = 0; index < batchSize; ++index) {
      pieces[index] = {slots[index].data(), slots[index].size()};
      messages[index].msg_hdr.msg_iov = &pieces[index];
      messages[index].msg_hdr.msg_iovlen = 1;
    }
  }

  std::unique_ptr<Slot[]> slots = std::make_unique_for_overwrite<Slot[]>(batchSize);
  std::array<iovec, batchSize> pieces{};
  std::array<mmsghdr, batchSize> messages{};
};

Arena& arena() {
  thread_local Arena instance;
  return instance;
}

/// Errors that concern one datagram and not the socket.
bool isLossOnly(int error) noexcept {
  return error == EMSGSIZE || error == ENOBUFS || error == ENOMEM || error == EPERM;
}

/// Batches smaller than this are copied out: packed, a few bytes would hold a whole buffer.
constexpr std::size_t worthPacking = BufferPool::bufferSize / 8;

/// An idle flow keeps no room for a burst that is over.
void empty(std::vector<Data>& datagrams) {
  datagrams.clear();
  if (datagrams.capacity() > 4) std::vector<Data>().swap(datagrams);
}

}  // namespace

void makeRoomForBursts(const FileDescriptor& socket, int bytes) {
  // Without the privilege, as much as everybody may have.
  if (::setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0)
    ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
}

int DatagramSocket::adopt(FileDescriptor socket) {
  if (!loop_.add(socket.get(), *this)) return errno;
  socket_ = std::move(socket);
  isReadable_ = isWritable_ = true;
  return 0;
}

void DatagramSocket::read(std::size_t maximum) {
  isReadWanted_ = true;
  readMaximum_ = maximum;
  if (inputFirst_ < input_.size() || readError_ != 0 || hasEnded_) {
    loop_.schedule(completion_);
  } else if (isReadable_) {
    loop_.defer(transfer_);
  }
}

void DatagramSocket::write(std::span<const Data> datagrams) {
  isWriteWanted_ = true;
  for (const Data& datagram : datagrams) append(datagram);
  if (isWritable_) loop_.defer(transfer_);
  if (isOutputAccepted()) loop_.schedule(completion_);
}

void DatagramSocket::writeUnanswered(Data datagram) {
  if (!isOpen() || !isOutputAccepted()) return;
  append(std::move(datagram));
  if (isWritable_) loop_.defer(transfer_);
}

void DatagramSocket::append(Data datagram) {
  outputWeight_ += weight(datagram);
  output_.push_back(std::move(datagram));
}

void DatagramSocket::inject(Data datagram) {
  take(std::move(datagram));
  if (isReadWanted_) loop_.schedule(completion_);
}

void DatagramSocket::take(Data datagram) {
  addTo(bytesRead_, datagram.count());
  ++datagrams_;
  input_.push_back(std::move(datagram));
}

void DatagramSocket::ready(std::uint32_t events) {
  if ((events & (EPOLLIN | EPOLLERR | EPOLLHUP)) != 0) isReadable_ = true;
  if ((events & EPOLLOUT) != 0) isWritable_ = true;
  loop_.defer(transfer_);
}

void DatagramSocket::complete() {
  if (isWriteWanted_ && (writeError_ != 0 || isOutputAccepted())) {
    isWriteWanted_ = false;
    owner_.datagramsDidLeave(std::exchange(writeError_, 0));
  }
  if (!isReadWanted_) return;
  if (inputFirst_ < input_.size()) {
    isReadWanted_ = false;
    auto batch = std::span(input_).subspan(inputFirst_);
    batch = batch.first(std::min(readMaximum_, batch.size()));
    const auto other = std::ranges::find_if(
        batch, [&](const Data& datagram) { return datagram.isEmpty() != batch.front().isEmpty(); });
    batch = batch.first(static_cast<std::size_t>(other - batch.begin()));
    inputFirst_ += batch.size();
    owner_.datagramsDidArrive(batch);
    if (inputFirst_ == input_.size()) {
      empty(input_);
      inputFirst_ = 0;
    }
  } else if (readError_ != 0) {
    isReadWanted_ = false;
    owner_.datagramsDidFail(std::exchange(readError_, 0));
  } else if (hasEnded_) {
    isReadWanted_ = false;
    owner_.datagramsDidFail(0);
  }
}

void DatagramSocket::transfer() {
  if (!output_.empty() && isWritable_) flush();
  if (isReadWanted_ && isReadable_ && inputFirst_ == input_.size()) fill();
}

void DatagramSocket::flush() {
  std::size_t first = 0;
  while (first < output_.size()) {
    std::array<mmsghdr, batchSize> messages{};
    std::array<iovec, batchSize> pieces;
    const std::size_t count = std::min(batchSize, output_.size() - first);
    for (std::size_t index = 0; index < count; ++index) {
      const auto bytes = output_[first + index].bytes();
      // sendmmsg does not write through the pointer that iovec has for both directions.
      pieces[index] = {const_cast<std::uint8_t*>(bytes.data()),
                       bytes.size()};  // NOLINT(*-const-cast)
      messages[index].msg_hdr.msg_iov = &pieces[index];
      messages[index].msg_hdr.msg_iovlen = 1;
    }
    const int sent = ::sendmmsg(socket_.get(), messages.data(), static_cast<unsigned>(count),
                                MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN) {
        isWritable_ = false;
        break;
      }
      if (!isLossOnly(errno)) {
        // A write that was accepted before has its answer already; somebody must hear of it.
        (isWriteWanted_ ? writeError_ : readError_) = errno;
        loop_.schedule(completion_);
      }
    }
    // Of a failed call, the first datagram is the one that cannot be sent.
    const std::size_t gone = sent > 0 ? static_cast<std::size_t>(sent) : 1;
    for (std::size_t index = 0; index < gone; ++index) {
      const Data& datagram = output_[first + index];
      outputWeight_ -= weight(datagram);
      if (sent > 0) addTo(bytesWritten_, datagram.count());
    }
    if (sent > 0) datagrams_ += gone;
    first += gone;
  }
  output_.erase(output_.begin(), output_.begin() + static_cast<std::ptrdiff_t>(first));
  if (output_.empty()) empty(output_);
  if (isWriteWanted_ && isOutputAccepted()) loop_.schedule(completion_);
}

void DatagramSocket::fill() {
  auto& [slots, pieces, messages] = arena();
  const int count = ::recvmmsg(socket_.get(), messages.data(), batchSize, MSG_DONTWAIT, nullptr);
  if (count < 0) {
    if (errno == EAGAIN) {
      isReadable_ = false;
      if (isEnding_) {
        hasEnded_ = true;
        loop_.schedule(completion_);
      }
    } else if (errno == EINTR) {
      loop_.defer(transfer_);
    } else {
      readError_ = errno;
      loop_.schedule(completion_);
    }
    return;
  }
  // There is no short read to tell that a datagram socket is empty: the next fill finds out.
  const auto received = std::span(messages).first(static_cast<std::size_t>(count));
  std::size_t total = 0;
  for (const mmsghdr& message : received) total += message.msg_len;
  if (total < worthPacking) {
    for (std::size_t index = 0; index < received.size(); ++index)
      take(Data::copying(std::span(slots[index]).first(received[index].msg_len)));
  } else {
    Data pack;
    std::size_t used = 0;
    for (std::size_t index = 0; index < received.size(); ++index) {
      const std::size_t length = received[index].msg_len;
      if (length == 0) {
        take({});
        continue;
      }
      if (pack.count() - used < length) {
        BufferPool::Buffer& buffer = loop_.buffers().borrow();
        pack = Data(buffer, 0, buffer.room().size());
        used = 0;
      }
      // Nobody else has seen these bytes of the buffer yet.
      std::memcpy(const_cast<std::uint8_t*>(pack.bytes().data()) + used,  // NOLINT(*-const-cast)
                  slots[index].data(), length);
      take(pack.slice(used, length));
      used += length;
    }
  }
  loop_.schedule(completion_);
}

void DatagramSocket::endAfterInput() {
  isEnding_ = isReadable_ = true;
  loop_.defer(transfer_);
}

void DatagramSocket::finish() {
  if (isOpen() && !output_.empty()) flush();
  close();
}

void DatagramSocket::close() noexcept {
  isReadWanted_ = isWriteWanted_ = false;
  completion_.unlink();
  transfer_.unlink();
  input_.clear();
  inputFirst_ = 0;
  output_.clear();
  outputWeight_ = 0;
  if (socket_.isOpen()) {
    loop_.remove(socket_.get(), *this);
    socket_.reset();
  }
}

}  // namespace tandor
