#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <benchmark/benchmark.h>

#include "connection/TandorProxyConnection.h"
#include "micro/Allocations.h"
#include "platform/Backend.h"
#include "platform/networkextension/NEAppProxyFlow.h"

// The core's part of a chunk: the platform below it does nothing but keep what was begun.

namespace {

using namespace tandor;

constexpr std::size_t chunkLength = 2048;

class BareConnection final : public NWConnection {
 public:
  void setStateUpdateHandler(StateUpdateHandler handler) override { handler_ = std::move(handler); }
  void start(std::shared_ptr<DispatchQueue> queue) override { queue_ = std::move(queue); }
  void send(Data, ContentContext, bool, SendCompletion completion) override {
    sending_ = std::move(completion);
  }
  void receive(std::size_t, std::size_t, ReceiveCompletion completion) override {
    receiving_ = std::move(completion);
  }
  void cancel() override {}

  [[nodiscard]] DispatchQueue& queue() { return *queue_; }
  void becomeReady() { handler_({State::Kind::ready, std::nullopt}); }
  void completeSend() { std::exchange(sending_, nullptr)(std::nullopt); }
  void completeReceive(Data chunk) {
    std::exchange(receiving_, nullptr)(std::move(chunk), ContentContext::defaultMessage, false,
                                       std::nullopt);
  }
  void abandon() {
    sending_ = nullptr;
    receiving_ = nullptr;
  }

 private:
  std::shared_ptr<DispatchQueue> queue_;
  StateUpdateHandler handler_;
  SendCompletion sending_;
  ReceiveCompletion receiving_;
};

class BareFlow final : public NEAppProxyTCPFlow {
 public:
  [[nodiscard]] const NEFlowMetaData& metaData() const override { return metaData_; }
  [[nodiscard]] NWFlowEndpoint remoteEndpoint() const override { return remoteEndpoint_; }
  void open(const std::optional<NWHostEndpoint>&, Completion) override {}
  void closeReadWithError(const std::optional<NSError>&) override {}
  void closeWriteWithError(const std::optional<NSError>&) override {}
  void readData(ReadCompletion completion) override { reading_ = std::move(completion); }
  void write(Data, Completion completion) override { writing_ = std::move(completion); }

  void completeRead(Data chunk) {
    std::exchange(reading_, nullptr)(std::move(chunk), std::nullopt);
  }
  void completeWrite() { std::exchange(writing_, nullptr)(std::nullopt); }
  void abandon() {
    reading_ = nullptr;
    writing_ = nullptr;
  }

 private:
  NEFlowMetaData metaData_{"app"};
  NWFlowEndpoint remoteEndpoint_ = NWHostEndpoint{"192.0.2.1", "443"};
  ReadCompletion reading_;
  Completion writing_;
};

class BareBackend final : public PlatformBackend {
 public:
  BareBackend() : earlier_(install(this)) {}
  BareBackend(const BareBackend&) = delete;
  BareBackend& operator=(const BareBackend&) = delete;
  ~BareBackend() override { install(earlier_); }
  [[nodiscard]] std::shared_ptr<NWConnection> makeConnection(const NWEndpoint&,
                                                             const NWParameters&) override {
    return connection = std::make_shared<BareConnection>();
  }
  [[nodiscard]] std::unique_ptr<NWPathMonitor> makePathMonitor() override { return nullptr; }

  std::shared_ptr<BareConnection> connection;

 private:
  PlatformBackend* earlier_;
};

/// Measures what `step` costs with each chunk, on the relay's own queue.
void relay(benchmark::State& state,
           const std::function<void(BareFlow&, BareConnection&, Data)>& step) {
  const BareBackend backend;
  const auto flow = std::make_shared<BareFlow>();
  const auto connection = TandorProxyConnection::make(
      ConnectionMode::directly(std::nullopt), ConnectionNetwork::tcp(flow, flow->remoteEndpoint()));
  connection->start();
  const Data chunk = Data::copying(std::string(chunkLength, 'x'));
  BareConnection& outbound = *backend.connection;
  outbound.queue().sync([&] {
    outbound.becomeReady();
    const std::uint64_t before = bench::allocations();
    for ([[maybe_unused]] auto _ : state) step(*flow, outbound, chunk);
    state.counters["allocations"] = benchmark::Counter(
        static_cast<double>(bench::allocations() - before), benchmark::Counter::kAvgIterations);
  });
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(chunkLength));
  connection->closeAllConnWithError(std::nullopt);
  flow->abandon();
  outbound.abandon();
}

void chunkDown(benchmark::State& state) {
  relay(state, [](BareFlow& flow, BareConnection& outbound, Data chunk) {
    outbound.completeReceive(std::move(chunk));
    flow.completeWrite();
  });
}
BENCHMARK(chunkDown);

void chunkUp(benchmark::State& state) {
  relay(state, [](BareFlow& flow, BareConnection& outbound, Data chunk) {
    flow.completeRead(std::move(chunk));
    outbound.completeSend();
  });
}
BENCHMARK(chunkUp);

}  // namespace
