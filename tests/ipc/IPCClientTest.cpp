#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

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

std::string errorOf(const std::expected<IPCClient, IPCError>& client) {
  return client ? "" : client.error().description();
}

std::string failure(std::string_view what, int errorNumber) {
  return IPCError::bsdError(what, errorNumber).description();
}

/// Bytes in which a piece that is lost, doubled or moved shows.
Bytes countedBytes(std::size_t count) {
  Bytes bytes(count);
  for (std::size_t index = 0; index < count; ++index)
    bytes[index] = static_cast<std::uint8_t>((index * 2'654'435'761U) >> 13U);
  return bytes;
}

TEST_F(IPCClientTest, SendsOneMessageBehindTheHandshake) {
  for (const Manner manner : {Manner::proper, Manner::terse}) {
    FakeHost host(manner);
    auto client = IPCClient::make(host.path());
    ASSERT_TRUE(client.has_value()) << errorOf(client);
    EXPECT_EQ(client->socketPath(), host.path());
    EXPECT_TRUE(client->sendMessage("ab", Data::copying("\x01")).has_value());
    EXPECT_TRUE(client->close().has_value());
    const Bytes message = host.nextMessage();
    ASSERT_EQ(message.size(), 75);
    EXPECT_EQ(message[3], 71);
  }
}

TEST_F(IPCClientTest, FailuresOfTheMakingLeaveNoDescriptor) {
  FakeHost silent(Manner::silent);
  FakeHost atOnce(Manner::closesAtOnce);
  FakeHost later(Manner::closesAfterGreeting);
  const struct {
    std::string path;
    std::string error;
  } cases[] = {
      {testing::TempDir() + "tandor-nobody-listens", failure("connect socket failed", ENOENT)},
      {"", failure("connect socket failed", EINVAL)},
      {std::string(104, 'p'), R"(invalidSocketPath(message: "path too long"))"},
      {std::string(103, 'p'), failure("connect socket failed", ENOENT)},
      {atOnce.path(), failure("write failed", EPIPE)},
      {later.path(), failure("write failed", EPIPE)},
      {silent.path(), failure("receive failed", EAGAIN)},
  };
  for (const auto& [path, error] : cases) {
    SCOPED_TRACE(path);
    const std::size_t before = openDescriptors();
    EXPECT_EQ(errorOf(IPCClient::make(path, 30ms)), error);
    // The host's own end of the connection may still be open for a moment.
    for (int wait = 0; wait < 1000 && openDescriptors() > before; ++wait)
      std::this_thread::sleep_for(1ms);
    EXPECT_EQ(openDescriptors(), before);
  }
}

TEST_F(IPCClientTest, ConnectsToAPathOf103Bytes) {
  std::string directory = testing::TempDir() + "tandor-XXXXXX";
  ASSERT_NE(::mkdtemp(directory.data()), nullptr);
  const std::string path = directory + "/" + std::string(102 - directory.size(), 'p');
  ASSERT_EQ(path.size(), 103);
  const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::ranges::copy(path, address.sun_path);
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(listener, 1), 0);
  // Nobody accepts, so the connection stands and the handshake does not come about.
  EXPECT_EQ(errorOf(IPCClient::make(path, 10ms)), failure("receive failed", EAGAIN));
  ::close(listener);
  std::filesystem::remove_all(directory);
}

TEST_F(IPCClientTest, SendsAMebibyteWholeAndNotAByteMore) {
  static constexpr int signalNumber = SIGUSR1;
  struct sigaction interrupting{};
  interrupting.sa_handler = [](int) {};
  struct sigaction earlier{};
  ::sigaction(signalNumber, &interrupting, &earlier);
  // The host stops reading after a piece and interrupts the write, which ends with only a part
  // transferred.
  FakeHost host(Manner::proper,
                [sender = ::pthread_self()] { ::pthread_kill(sender, signalNumber); });
  auto client = IPCClient::make(host.path());
  ASSERT_TRUE(client.has_value()) << errorOf(client);
  const Bytes most = countedBytes(1'048'576);
  EXPECT_EQ(client->send(countedBytes(most.size() + 1)), std::unexpected(IPCError::notSupport()));
  EXPECT_TRUE(client->send({}).has_value());
  const auto sent = client->send(most);
  EXPECT_TRUE(sent.has_value()) << sent.error().description();
  EXPECT_TRUE(client->close().has_value());
  EXPECT_TRUE(host.nextMessage() == most);
  ::sigaction(signalNumber, &earlier, nullptr);
}

TEST_F(IPCClientTest, IsOfNoUseOnceClosed) {
  FakeHost host;
  auto client = IPCClient::make(host.path());
  ASSERT_TRUE(client.has_value()) << errorOf(client);
  const auto closed = std::unexpected(IPCError::connAlreadyClosed());
  EXPECT_TRUE(client->close().has_value());
  EXPECT_FALSE(client->socketFd().has_value());
  EXPECT_EQ(client->close(), closed);
  EXPECT_EQ(client->send(countedBytes(1)), closed);
  EXPECT_EQ(client->receive(1), closed);
  EXPECT_EQ(client->sendMessage("name", std::nullopt), closed);
}

TEST_F(IPCClientTest, ReadsWhatIsThereAndReportsAPeerThatLeft) {
  FakeHost host;
  auto client = IPCClient::make(host.path());
  ASSERT_TRUE(client.has_value()) << errorOf(client);
  ASSERT_EQ(client->sendMessage("\xFF", std::nullopt),
            std::unexpected(IPCError::serializeFailed()));
  ::shutdown(*client->socketFd(), SHUT_WR);  // the host has its message and closes
  EXPECT_TRUE(host.nextMessage().empty());
  EXPECT_EQ(client->receive(9), Data());
  EXPECT_EQ(client->send(countedBytes(1)),
            std::unexpected(IPCError::bsdError("write failed", EPIPE)));
}

TEST_F(IPCClientTest, OwnsItsDescriptorThroughMovesAndDrops) {
  FakeHost one;
  FakeHost two;
  {
    auto made = IPCClient::make(one.path());
    auto other = IPCClient::make(two.path());
    ASSERT_TRUE(made.has_value() && other.has_value());
    IPCClient moved = std::move(*made);
    moved = std::move(*other);
    EXPECT_EQ(moved.socketPath(), two.path());
    EXPECT_TRUE(moved.sendMessage("name", std::nullopt).has_value());
  }
  EXPECT_TRUE(one.nextMessage().empty());
  EXPECT_EQ(two.nextMessage().size(), 76);
}

}  // namespace
}  // namespace tandor::test
