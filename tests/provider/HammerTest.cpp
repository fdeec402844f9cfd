#include <array>
#include <chrono>
#include <functional>
#include <mutex>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "ipc/AppMessage.h"
#include "provider/ProviderFixture.h"
#include "support/Hello.h"

namespace tandor::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Random = std::minstd_rand;
using Error = std::optional<NSError>;

/// A taken flow of either kind.
struct Taken {
  std::shared_ptr<NEAppProxyFlow> flow;
  std::function<bool(const Error&)> completeOpen;
  std::function<bool(const std::optional<Data>&, const Error&)> completeRead;
  std::function<bool(const Error&)> completeWrite;
  std::function<bool()> isClosed;
};

template <typename Flow>
Taken taken(const std::shared_ptr<Flow>& flow) {
  return {flow, [&flow = *flow](const Error& error) { return flow.completeOpen(error); },
          [&flow = *flow](const std::optional<Data>& data, const Error& error) {
            if constexpr (std::same_as<Flow, ScriptedTCPFlow>) {
              return flow.completeRead(data, error);
            } else {
              using Datagrams = std::optional<std::vector<Data>>;
              return flow.completeRead(data ? Datagrams({*data, *data}) : std::nullopt, error);
            }
          },
          [&flow = *flow](const Error& error) { return flow.completeWrite(error); },
          [&flow = *flow] { return flow.isClosed(); }};
}

class Hammer : public ProviderFixture {
 protected:
  /// Runs `step` over and over on a thread of its own until the time is up.
  std::jthread repeating(unsigned seed, std::function<void(Random&)> step) {
    return std::jthread([this, seed, step = std::move(step)] {
      for (Random random(seed); Clock::now() < end_; std::this_thread::yield()) step(random);
    });
  }

  void offerFlow(Random& random) {
    if (provider_->proxyConnections().size() > recent) return;
    const std::string app = random() % 2 == 0 ? "listed" : "other";
    if (random() % 4 == 0) {
      const auto flow = platform_.udpFlow(app);
      if (provider_->handleNewUDPFlow(flow, destination)) add(taken(flow));
    } else {
      const auto flow = platform_.tcpFlow(destination, app);
      if (provider_->handleNewFlow(flow)) add(taken(flow));
    }
  }

  /// Completes something of some flow, as its platform would: a closed one ends what is under way.
  void pumpFlow(Random& random) {
    static const std::array<Data, 3> reads = {clientHello("name.example"),
                                              bytes("GET / HTTP/1.1\r\n"), bytes("neither")};
    std::unique_lock lock(mutex_);
    if (taken_.empty()) return;
    const Taken some = taken_[pick(taken_.size(), random)];
    lock.unlock();
    if (some.completeOpen(Error())) {
      // Its connection is in the registry now, unless it has been closed already.
      lock.lock();
      open_.push_back(some);
    } else if (some.isClosed()) {
      some.completeRead(std::nullopt, Error());
      some.completeWrite(broken);
    } else if (random() % 2 == 0) {
      some.completeRead(reads.at(random() % reads.size()), sometimes(random));
    } else {
      some.completeWrite(sometimes(random));
    }
  }

  /// The same for some outbound connection.
  void pumpConnection(Random& random) {
    using State = NWConnection::State::Kind;
    const std::size_t count = platform_.connectionCount();
    if (count == 0) return;
    const std::size_t number = pick(count, random) + 1;
    ScriptedConnection& connection = platform_.out(number);
    const Error error = sometimes(random);
    if (connection.isCancelled()) {
      connection.completeSend(broken);
      connection.completeReceive(std::nullopt, false, broken);
    } else if (random() % 3 == 0) {
      connection.completeSend(error);
    } else if (random() % 2 == 0) {
      connection.completeReceive(bytes("Connection Established"), error.has_value(), error);
    } else if (std::unique_lock lock(mutex_); entered_.insert(number).second) {
      lock.unlock();
      connection.enter(error ? State::failed : State::ready, error);
    }
  }

  /// Switches off in one of three ways; whatever had been opened before is closed by then.
  void switchOffAndOn(Random& random) {
    std::unique_lock lock(mutex_);
    const std::vector<Taken> before = std::exchange(open_, {});
    lock.unlock();
    switch (random() % 3) {
      case 0:
        provider_->setEnable(false);
        break;
      case 1:
        provider_->sleep([] {});
        break;
      default:
        provider_->stopProxy(NEProviderStopReason::none, [] {});
    }
    for (const Taken& flow : before) EXPECT_TRUE(flow.isClosed());
    provider_->wake();
    std::this_thread::sleep_for(5ms);
  }

  void updateConfiguration(Random& random) {
    constexpr std::array modes = {"webProxy", "directlyWhiteList", "tunnelWhiteList"};
    const std::string json =
        R"({"appIds": "[\"listed\"]", "proxyHostname": "proxy.example", )"
        R"("proxyPort": "3128", "debug": "true", "enable": "true", "mode": ")" +
        std::string(modes.at(random() % modes.size())) + "\"}";
    provider_->handleAppMessage(makeAppMessage("updateConfig", bytes(json)), nullptr);
  }

  /// Completes all that is under way; false when nothing was.
  bool finishEverything() {
    bool found = false;
    for (const Taken& flow : taken_) {
      found |= flow.completeOpen(Error());
      found |= flow.completeRead(std::nullopt, Error());
      found |= flow.completeWrite(broken);
    }
    for (std::size_t number = 1; number <= platform_.connectionCount(); ++number) {
      found |= platform_.out(number).completeSend(broken);
      found |= platform_.out(number).completeReceive(std::nullopt, false, broken);
    }
    return found;
  }

  // Guarded by mutex_ while threads run.
  std::vector<Taken> taken_;
  std::vector<Taken> open_;  // opened since the last switch-off

 private:
  static constexpr std::size_t recent = 64;

  /// One of the last few of `count`.
  static std::size_t pick(std::size_t count, Random& random) {
    return count - 1 - random() % std::min(count, recent);
  }
  static Error sometimes(Random& random) { return random() % 16 == 0 ? Error(broken) : Error(); }
  void add(Taken flow) {
    const std::scoped_lock lock(mutex_);
    taken_.push_back(std::move(flow));
  }

  const Clock::time_point end_ = Clock::now() + 1500ms;
  std::mutex mutex_;
  std::set<std::size_t> entered_;  // guarded by mutex_: connections that became ready or failed
};

TEST_F(Hammer, EverythingAtOnceLeavesNothingBehind) {
  start(configuration());
  {
    std::vector<std::jthread> threads;
    unsigned seed = 1;
    for (const int count : {1, 2}) {
      threads.push_back(repeating(++seed, [this](Random& random) { offerFlow(random); }));
      threads.push_back(repeating(++seed, [this](Random& random) { pumpFlow(random); }));
      threads.push_back(repeating(++seed, [this](Random& random) { pumpConnection(random); }));
      if (count == 2) break;
      threads.push_back(repeating(++seed, [this](Random& random) { switchOffAndOn(random); }));
      threads.push_back(repeating(++seed, [this](Random& random) { updateConfiguration(random); }));
      threads.push_back(repeating(++seed, [this](Random& random) {
        const auto type = static_cast<NWInterface::InterfaceType>(random() % 5);
        platform_.reportPath({{"en0", type, 2}});
        static_cast<void>(journal_.take());
      }));
    }
  }
  EXPECT_GT(taken_.size(), 100);
  EXPECT_GT(platform_.connectionCount(), 100);
  open_.clear();
  provider_->stopProxy(NEProviderStopReason::none, [] {});
  while (finishEverything()) {
  }
  EXPECT_TRUE(provider_->proxyConnections().empty());
  const auto deadline = Clock::now() + 5s;
  for (const Taken& flow : taken_) {
    EXPECT_TRUE(flow.isClosed());
    // A proxy connection that lived would own its flow; the last ones go on threads of the pool.
    while (flow.flow.use_count() > 2 && Clock::now() < deadline) std::this_thread::sleep_for(1ms);
    EXPECT_EQ(flow.flow.use_count(), 2) << "owned by this test and the platform alone";
  }
  for (std::size_t number = 1; number <= platform_.connectionCount(); ++number)
    EXPECT_TRUE(platform_.out(number).isCancelled());
}

}  // namespace
}  // namespace tandor::test
