#include <cerrno>
#include <limits>
#include <utility>
#include <vector>

#include "platform/linux/DatagramSocket.h"
#include "platform/linux/SocketConnection.h"
#include "platform/linux/StreamSocket.h"

namespace tandor {
namespace {

class StreamConnection final : public SocketConnection, private StreamSocket::Owner {
 public:
  using SocketConnection::SocketConnection;

 private:
  int attempt(FileDescriptor socket, const SocketAddress& address) override {
    if (!stream_) stream_.emplace(loop(), static_cast<StreamSocket::Owner&>(*this));
    return stream_->connect(std::move(socket), address.get(), address.length());
  }

  void sendContent(Data content) override { stream_->write(std::move(content)); }

  void receiveContent(std::size_t minimum, std::size_t maximum) override {
    if (minimum > 1) gathering_ = std::make_unique<Gathering>(minimum, maximum);
    stream_->read(maximum);
  }

  void finish() override {
    if (stream_) stream_->finish();
  }
  void abort() override {
    if (stream_) stream_->abort();
  }

  [[nodiscard]] int descriptor() const noexcept override {
    return stream_ ? stream_->descriptor() : -1;
  }

  void streamDidConnect(int error) override { attemptEnded(error); }

  void streamDidRead(Data data) override {
    if (gathering_ == nullptr) {
      completeReceive(std::move(data), /*isComplete=*/false, 0);
      return;
    }
    auto& bytes = gathering_->bytes;
    bytes.insert(bytes.end(), data.bytes().begin(), data.bytes().end());
    if (bytes.size() >= gathering_->minimum) {
      deliverGathered(/*isComplete=*/false);
    } else {
      stream_->read(gathering_->maximum - bytes.size());
    }
  }

  void streamDidEnd(int error) override {
    if (gathering_ == nullptr || gathering_->bytes.empty()) {
      gathering_ = nullptr;
      completeReceive(std::nullopt, /*isComplete=*/error == 0, error);
    } else {
      deliverGathered(/*isComplete=*/error == 0);  // the next receive meets the same end
    }
  }

  void streamDidWrite(int error) override { completeSend(error); }
  [[nodiscard]] std::shared_ptr<void> streamReference() override { return self(); }

  void deliverGathered(bool isComplete) {
    const auto gathering = std::exchange(gathering_, nullptr);
    completeReceive(Data::copying(gathering->bytes), isComplete, 0);
  }

  std::optional<StreamSocket> stream_;
  /// A receive that asks for more than one byte.
  struct Gathering {
    std::size_t minimum;
    std::size_t maximum;
    std::vector<std::uint8_t> bytes;  // fewer than it asked for
  };
  std::unique_ptr<Gathering> gathering_;
};

class DatagramConnection final : public SocketConnection,
                                 public InterceptedFlow::Carrier,
                                 private DatagramSocket::Owner {
 public:
  using SocketConnection::SocketConnection;

 private:
  int attempt(FileDescriptor socket, const SocketAddress& address) override {
    if (::connect(socket.get(), &address.get(), address.length()) != 0) return errno;
    socket_.emplace(loop(), static_cast<DatagramSocket::Owner&>(*this));
    if (const int error = socket_->adopt(std::move(socket)); error != 0) return error;
    if (const auto relayed = flow()) relayed->setCarrier(std::shared_ptr<Carrier>(self(), this));
    attemptEnded(0);
    return 0;
  }

  void sendEmptyDatagram() override { socket_->writeUnanswered({}); }

  void sendContent(Data content) override { socket_->write({&content, 1}); }

  void receiveContent(std::size_t /*minimum*/, std::size_t /*maximum*/) override {
    socket_->read(1);  // half a datagram is of no use to anyone: each comes whole
  }

  void finish() override {
    if (socket_) socket_->finish();
  }
  void abort() override { finish(); }

  [[nodiscard]] int descriptor() const noexcept override {
    return socket_ ? socket_->descriptor() : -1;
  }

  void datagramsDidArrive(std::span<Data> datagrams) override {
    completeReceive(std::move(datagrams.front()), /*isComplete=*/false, 0);
  }
  void datagramsDidFail(int error) override { completeReceive(std::nullopt, false, error); }
  void datagramsDidLeave(int error) override { completeSend(error); }

  std::optional<DatagramSocket> socket_;
};

}  // namespace

std::shared_ptr<NWConnection> makeSocketConnection(const NWEndpoint& endpoint,
                                                   const NWParameters& parameters,
                                                   const OutboundMeans& means,
                                                   EpollLoop& defaultLoop) {
  if (parameters.transport == NWParameters::Transport::udp)
    return makeResident<DatagramConnection>(endpoint, parameters, means, defaultLoop);
  return makeResident<StreamConnection>(endpoint, parameters, means, defaultLoop);
}

}  // namespace tandor
