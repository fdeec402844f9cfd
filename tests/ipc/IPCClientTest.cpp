#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <memory>
#include <pthread.h>
#include <sys/socket.h>
#include <thread>

#include <gtest/gtest.h>

#include "ipc/IPCClient.h"
#include "support/FakeHost.h"

namespace tandor::test {
namespace {

using namespace std::chrono_literals;
using Manner = FakeHost::Manner;
using Bytes = std::vector<std::uint8_t>;

/// Fails when descriptors are left open behind it.
class IPCClientTest : public testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(openDescriptors(), before_); }

 private:
  const std::size_t before_ = openDescriptors();
};

std::string errorOf(const auto& result) {
  return result ? "" : result.error().description();
}
std::string failure(std::string_view what, int errorNumber) {
  return IPCError::bsdError(what, errorNumber).description();
}

TEST_F(IPCClientTest, SendsOneMessageBehindTheHandshake) {
  for (const Manner manner : {Manner::proper, Manner::terse}) {
    FakeHost host(manner);
    auto client = IPCClient::make(host.path());
    ASSERT_EQ(errorOf(client), "");
    EXPECT_EQ(errorOf(client->sendMessage("ab", Data::copying("\x01"))), "");
    EXPECT_EQ(errorOf(client->close()), "");
    EXPECT_EQ(host.nextMessage().size(), 75);
    for (const std::string& error :
         {errorOf(client->close()), errorOf(client->send(Bytes(1))), errorOf(client->receive(1)),
          errorOf(client->sendMessage("ab", std::nullopt))})
      EXPECT_EQ(error, "connAlreadyClosed");
  }
}

TEST_F(IPCClientTest, FailuresOfTheMakingLeaveNoDescriptor) {
  const FakeHost silent(Manner::silent);
  const FakeHost atOnce(Manner::closesAtOnce);
  const FakeHost later(Manner::closesAfterGreeting);
  const std::pair<std::string, std::string> cases[] = {
      {"", failure("connect socket failed", EINVAL)},
      {std::string(103, 'p'), failure("connect socket failed", ENOENT)},
      {std::string(104, 'p'), R"(invalidSocketPath(message: "path too long"))"},
      {atOnce.path(), failure("write failed", EPIPE)},
      {later.path(), failure("write failed", EPIPE)},
      {silent.path(), failure("receive failed", EAGAIN)}};
  for (const auto& [path, error] : cases) {
    const std::size_t before = openDescriptors();
    EXPECT_EQ(errorOf(IPCClient::make(path, 30ms)), error);
    // The host's own end of the connection may stay open for a moment.
    for (int wait = 0; wait < 1000 && openDescriptors() > before; ++wait)
      std::this_thread::sleep_for(1ms);
    EXPECT_EQ(openDescriptors(), before) << path;
  }
}

TEST_F(IPCClientTest, ConnectsToAPathOf103Bytes) {
  const FakeHost host(Manner::proper, {}, 103);
  ASSERT_EQ(host.path().size(), 103);
  EXPECT_EQ(errorOf(IPCClient::make(host.path())), "");
}

TEST_F(IPCClientTest, SendsAMebibyteWholeAndNotAByteMore) {
  struct sigaction interrupting{};
  interrupting.sa_handler = [](int) {};
  struct sigaction earlier{};
  ::sigaction(SIGUSR1, &interrupting, &earlier);
  // The host reads a piece and interrupts the write, which ends with only a part transferred.
  FakeHost host(Manner::proper, [sender = ::pthread_self()] { ::pthread_kill(sender, SIGUSR1); });
  auto client = IPCClient::make(host.path());
  ASSERT_EQ(errorOf(client), "");
  Bytes most(1'048'576);
  std::ranges::generate(most, [number = 0U]() mutable {
    return static_cast<std::uint8_t>((number++ * 2'654'435'761U) >> 13U);
  });
  EXPECT_EQ(errorOf(client->send(Bytes(most.size() + 1))), "notSupport");
  EXPECT_EQ(errorOf(client->send({})), "");
  EXPECT_EQ(errorOf(client->send(most)), "");
  EXPECT_EQ(errorOf(client->close()), "");
  EXPECT_TRUE(host.nextMessage() == most);
  ::sigaction(SIGUSR1, &earlier, nullptr);
}

TEST_F(IPCClientTest, ReportsAPeerThatLeft) {
  FakeHost host;
  auto client = IPCClient::make(host.path());
  ASSERT_EQ(errorOf(client), "");
  EXPECT_EQ(errorOf(client->sendMessage("\xFF", std::nullopt)), "serializeFailed");
  ::shutdown(*client->socketFd(), SHUT_WR);  // the host has its message and closes
  EXPECT_TRUE(host.nextMessage().empty());
  EXPECT_EQ(client->receive(9), Data());
  EXPECT_EQ(errorOf(client->send(Bytes(1))), failure("write failed", EPIPE));
}

TEST_F(IPCClientTest, OwnsItsDescriptorThroughMovesAndDrops) {
  FakeHost one;
  FakeHost two;
  {
    auto made = IPCClient::make(one.path());
    auto other = IPCClient::make(two.path());
    ASSERT_EQ(errorOf(made) + errorOf(other), "");
    IPCClient moved = std::move(*made);
    moved = std::move(*other);
    EXPECT_EQ(moved.socketPath(), two.path());
    EXPECT_EQ(errorOf(moved.sendMessage("name", std::nullopt)), "");
  }
  EXPECT_TRUE(one.nextMessage().empty());
  EXPECT_EQ(two.nextMessage().size(), 76);
}

}  // namespace
}  // namespace tandor::test
