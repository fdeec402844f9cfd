#include <array>
#include <chrono>
#include <mutex>
#include <random>
#include <set>
#include <thread>
#include <variant>
#include <vector>

#include "ipc/AppMessage.h"
#include "provider/ProviderFixture.h"
#include "support/Hello.h"
#include "support/Waiting.h"

namespace tandor::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Random = std::minstd_rand;
using Error = std::optional<NSError>;

using Flow = std::variant<std::shared_ptr<ScriptedTCPFlow>, std::shared_ptr<ScriptedUDPFlow>>;

bool completeOpen(const Flow& flow) {
  return std::visit([](const auto& some) { return some->completeOpen(); }, flow);
}
bool completeWrite(const Flow& flow, const Error& error) {
  return std::visit([&](const auto& some) { return some->completeWrite(error); }, flow);
}
bool completeRead(const Flow& flow, const std::optional<Data>& data, const Error& error) {
  if (const auto* tcp = std::get_if<0>(&flow)) return (*tcp)->completeRead(data, error);
  using Datagrams = std::optional<std::vector<Data>>;
  return std::get<1>(flow)->completeRead(data ? Datagrams({*data, *data}) : std::nullopt, error);
}
bool isClosed(const Flow& flow) {
  return std::visit([](const auto& some) { return some->isClosed(); }, flow);
}

class Hammer : public ProviderFixture {
 public:
  using Step = void (Hammer::*)(Random&);
  /// Runs `step` over and over on a thread of its own until the time is up.
  std::jthread repeating(unsigned seed, Step step) {
    return std::jthread([this, seed, step] {
      for (Random random(seed); Clock::now() < end_; std::this_thread::yield())
        (this->*step)(random);
    });
  }

  void offerFlow(Random& random) {
    if (provider_->proxyConnections().size() > recent) return;
    const std::string app = random() % 2 == 0 ? "listed" : "other";
    if (random() % 4 == 0) {
      const auto flow = platform_.udpFlow(app);
      if (provider_->handleNewUDPFlow(flow, destination)) add(flow);
    } else {
      const auto flow = platform_.tcpFlow(destination, app);
      if (provider_->handleNewFlow(flow)) add(flow);
    }
  }

  /// Completes something of some flow, as its platform would: a closed one ends what is under way.
  void pumpFlow(Random& random) {
    static const std::array<Data, 3> reads = {clientHello("name.example"),
                                              bytes("GET / HTTP/1.1\r\n"), bytes("neither")};
    std::unique_lock lock(mutex_);
    if (taken_.empty()) return;
    const Flow some = taken_[pick(taken_.size(), random)];
    lock.unlock();
    if (completeOpen(some)) {
      // Its connection is in the registry now, unless it has been closed already.
      lock.lock();
      open_.push_back(some);
    } else if (isClosed(some)) {
      completeRead(some, std::nullopt, {});
      completeWrite(some, broken);
    } else if (random() % 2 == 0) {
      completeRead(some, reads.at(random() % reads.size()), sometimes(random));
    } else {
      completeWrite(some, sometimes(random));
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
    const std::vector<Flow> before = std::exchange(open_, {});
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
    for (const Flow& flow : before) EXPECT_TRUE(isClosed(flow));
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

  void changePath(Random& random) {
    platform_.reportPath({{"en0", static_cast<NWInterface::InterfaceType>(random() % 5), 2}});
    static_cast<void>(journal_.take());
  }

  /// Completes all that is under way; false when nothing was.
  bool finishEverything() {
    bool found = false;
    for (const Flow& flow : taken_) {
      found |= completeOpen(flow);
      found |= completeRead(flow, std::nullopt, {});
      found |= completeWrite(flow, broken);
    }
    for (std::size_t number = 1; number <= platform_.connectionCount(); ++number) {
      found |= platform_.out(number).completeSend(broken);
      found |= platform_.out(number).completeReceive(std::nullopt, false, broken);
    }
    return found;
  }

  // Guarded by mutex_ while threads run.
  std::vector<Flow> taken_;
  std::vector<Flow> open_;  // opened since the last switch-off

 private:
  static constexpr std::size_t recent = 64;

  /// One of the last few of `count`.
  static std::size_t pick(std::size_t count, Random& random) {
    return count - 1 - random() % std::min(count, recent);
  }
  static Error sometimes(Random& random) { return random() % 16 == 0 ? Error(broken) : Error(); }
  void add(Flow flow) {
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
    unsigned seed = 0;
    for (const Step step :
         {&Hammer::offerFlow, &Hammer::offerFlow, &Hammer::pumpFlow, &Hammer::pumpFlow,
          &Hammer::pumpConnection, &Hammer::pumpConnection, &Hammer::switchOffAndOn,
          &Hammer::updateConfiguration, &Hammer::changePath})
      threads.push_back(repeating(++seed, step));
  }
  EXPECT_GT(taken_.size(), 100);
  EXPECT_GT(platform_.connectionCount(), 100);
  open_.clear();
  provider_->stopProxy(NEProviderStopReason::none, [] {});
  while (finishEverything()) {
  }
  EXPECT_TRUE(provider_->proxyConnections().empty());
  for (const Flow& flow : taken_) {
    EXPECT_TRUE(isClosed(flow));
    // A proxy connection that lived would own its flow; the last ones go on threads of the pool.
    const auto isFree = [](const auto& some) { return some.use_count() == 2; };
    EXPECT_TRUE(eventually([&] { return std::visit(isFree, flow); }))
        << "owned by more than this test and the platform";
  }
  for (std::size_t number = 1; number <= platform_.connectionCount(); ++number)
    EXPECT_TRUE(platform_.out(number).isCancelled());
}

}  // namespace
}  // namespace tandor::test
