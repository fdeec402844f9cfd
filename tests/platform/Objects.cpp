#include "platform/Objects.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <fmt/format.h>

#include "platform/linux/SocketConnection.h"

namespace tandor::test {
namespace {

FileDescriptor nonBlocking(Peer peer) {
  ::fcntl(peer.descriptor(), F_SETFL, O_NONBLOCK);
  return peer.release();
}

/// The kernel doubles the number that it is given.
void limitBuffers(const Peer& peer, int size) {
  if (size == 0) return;
  const int half = size / 2;
  for (const int option : {SO_SNDBUF, SO_RCVBUF})
    ::setsockopt(peer.descriptor(), SOL_SOCKET, option, &half, sizeof half);
}

}  // namespace

Awaited<Error> open(NEAppProxyFlow& flow) {
  const Awaited<Error> opened;
  flow.open(std::nullopt, [opened](const Error& error) { opened.set(error); });
  return opened;
}

Awaited<Read> read(NEAppProxyTCPFlow& flow) {
  const Awaited<Read> answer;
  flow.readData([answer](std::optional<Data> data, const Error& error) {
    answer.set({std::move(data), error, false});
  });
  return answer;
}

Awaited<Error> write(NEAppProxyTCPFlow& flow, std::string_view text) {
  const Awaited<Error> written;
  flow.write(Data::copying(text), [written](const Error& error) { written.set(error); });
  return written;
}

void close(NEAppProxyFlow& flow, const Error& error) {
  flow.closeReadWithError(error);
  flow.closeWriteWithError(error);
}

TCPFlow makeTCPFlow(EpollLoop& loop, int buffer) {
  const Listener listener;
  Peer client(FileDescriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)));
  limitBuffers(client, buffer);
  client.connect(listener.address());
  Peer accepted = listener.accept();
  limitBuffers(accepted, buffer);
  return {makeResident<SocketTCPFlow>(loop, nonBlocking(std::move(accepted)), NEFlowMetaData{"app"},
                                      IPv4Endpoint{0xCB007101, 80}),
          std::move(client)};
}

Outbound::Outbound(EpollLoop& loop, Resolver& resolver, const NWEndpoint& endpoint,
                   const NWParameters& parameters)
    : connection_(makeSocketConnection(endpoint, parameters, resolver, loop)) {
  connection_->setStateUpdateHandler([log = log_](const NWConnection::State& state) {
    std::string text = NWConnection::State{state.kind, std::nullopt}.description();
    if (state.error) text += fmt::format(" {} {}", state.error->domain(), state.error->code());
    const std::scoped_lock lock(log->mutex);
    log->states.push_back(std::move(text));
  });
}

Awaited<Error> Outbound::send(std::string_view text) const {
  const Awaited<Error> sent;
  connection_->send(Data::copying(text), NWConnection::ContentContext::defaultMessage, true,
                    [sent](const Error& error) { sent.set(error); });
  return sent;
}

Awaited<Read> Outbound::receive(std::size_t minimum, std::size_t maximum) const {
  const Awaited<Read> received;
  connection_->receive(
      minimum, maximum,
      [received](std::optional<Data> data, NWConnection::ContentContext /*context*/,
                 bool isComplete,
                 const Error& error) { received.set({std::move(data), error, isComplete}); });
  return received;
}

std::vector<std::string> Outbound::states() const {
  const std::scoped_lock lock(log_->mutex);
  return log_->states;
}

bool Outbound::reaches(const std::string& state) const {
  return eventually([&] {
    const auto reached = states();
    return !reached.empty() && reached.back().starts_with(state);
  });
}

NWEndpoint endpointOf(const std::string& host, std::uint16_t port) {
  return NWEndpoint::hostPort(NWEndpoint::Host::name(host), NWEndpoint::Port(port));
}

void LoopTest::TearDown() {
  // What else was open for a moment when the test began may have gone.
  EXPECT_TRUE(eventually([this] { return openDescriptors() <= before_; }))
      << openDescriptors() << " descriptors are open, not " << before_;
  settle();  // from here on nobody comes to the loop any more
  loop_.reset();
}

void LoopTest::passThrough() const {
  // Twice: the first block may run in the turn that had looked before.
  for (int turn = 0; turn < 2; ++turn) {
    const Awaited<bool> passed;
    loop().post([passed] { passed.set(true); });
    static_cast<void>(passed.get());
  }
}

void LoopTest::settle() const {
  passThrough();
  passThrough();
  for (const auto& queue : queues_) queue->sync([] {});
}

std::shared_ptr<DispatchQueue> LoopTest::queue(bool isPinned) {
  class Pin final : public LoopAffinity {
   public:
    explicit Pin(EpollLoop& loop) : loop_(loop) {}
    [[nodiscard]] EventLoop& loop() const noexcept override { return loop_; }

   private:
    EpollLoop& loop_;
  };
  return queues_.emplace_back(
      DispatchQueue::serial("queue", isPinned ? std::make_shared<Pin>(loop()) : nullptr));
}

}  // namespace tandor::test
