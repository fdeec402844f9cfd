#include <algorithm>
#include <future>
#include <sys/socket.h>
#include <sys/un.h>

#include <gtest/gtest.h>

#include "host/StatusSocket.h"
#include "host/Support.h"
#include "ipc/IPCClient.h"
#include "ipc/Payload.h"

namespace tandor::host::test {
namespace {

using namespace std::chrono_literals;

class StatusSocketTest : public testing::Test {
 protected:
  /// Runs a client on a thread of its own while the loop serves it; what it returned.
  template <typename Function>
  auto serve(Function client) {
    auto result = std::async(std::launch::async, client);
    const auto isReady = [&] { return result.wait_for(0s) == std::future_status::ready; };
    // In short turns: that a thread has ended is no event of the loop.
    while (!loop_.runUntil(isReady, 5ms)) {
    }
    static_cast<void>(loop_.runUntil([] { return false; }, 20ms));
    return result.get();
  }

  const TemporaryFolder folder_;
  const std::string path_ = folder_ / "status";
  EventLoop loop_;
  std::string heard_;
  std::unique_ptr<StatusSocket> socket_ =
      StatusSocket::listen(loop_, path_, [this](const StatusChange& change) {
        heard_ += change.status == ProxyProviderStatus::started ? "+" : "-";
        heard_ += change.text;
      }).value();
};

TEST_F(StatusSocketTest, HearsTheProviderAmongManyThatNeverShakeHands) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::ranges::copy(path_, address.sun_path);
  std::vector<FileDescriptor> idle;
  const bool isSent = serve([&] {
    for (int index = 0; index < 20; ++index) {
      idle.emplace_back(::socket(AF_UNIX, SOCK_STREAM, 0));
      const auto* at = reinterpret_cast<const sockaddr*>(&address);
      if (::connect(idle.back().get(), at, sizeof address) != 0) return false;
    }
    auto client = IPCClient::make(path_);
    const Data stopped = makeStatusContent(ProxyProviderStatus::stopped, "bye");
    return client && client->sendMessage("SomethingElse", Data::copying("x")) &&
           client->sendMessage(statusMessageName, stopped);
  });
  EXPECT_TRUE(isSent);
  EXPECT_EQ(heard_, "-bye");
}

TEST_F(StatusSocketTest, TakesPayloadsInPiecesAndDropsClientsThatTalkNonsense) {
  const auto whole =
      makePayload(statusMessageName, makeStatusContent(ProxyProviderStatus::stopped, "piecewise"))
          .value();
  const bool isTaken = serve([&] {
    auto client = IPCClient::make(path_);
    return std::ranges::all_of(whole, [&](const std::uint8_t& byte) {
      return client && client->send({&byte, 1}).has_value();
    });
  });
  EXPECT_TRUE(isTaken);
  EXPECT_EQ(heard_, "-piecewise");
  const std::pair<std::size_t, std::uint8_t> changes[] = {{0, 0xFF}, {3, 5},     {7, 11},
                                                          {31, 1},   {63, 0xFF}, {63, 1}};
  for (const auto& [index, value] : changes) {
    auto nonsense = whole;
    nonsense[index] = value;
    const auto received = serve([&] {
      auto client = IPCClient::make(path_);
      static_cast<void>(client->send(nonsense));
      return client->receive(1);  // nothing: the other side has hung up
    });
    EXPECT_TRUE(!received || received->isEmpty());
  }
  EXPECT_EQ(heard_, "-piecewise");
}

}  // namespace
}  // namespace tandor::host::test
