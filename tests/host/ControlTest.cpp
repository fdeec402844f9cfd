// The two sockets: the provider's control socket and the status socket of this side.

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <future>
#include <sys/socket.h>
#include <sys/un.h>

#include <gtest/gtest.h>

#include "host/ControlClient.h"
#include "host/FakeProvider.h"
#include "host/JSONValues.h"
#include "host/PrivateFolder.h"
#include "host/StatusSocket.h"
#include "host/Support.h"
#include "ipc/IPCClient.h"
#include "ipc/Payload.h"

namespace tandor::host::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

class StatusSocketTest : public testing::Test {
 protected:
  StatusSocketTest() {
    auto socket = StatusSocket::listen(loop_, path_, [this](const StatusChange& change) {
      heard_ += change.status == ProxyProviderStatus::started ? "+" : "-";
      heard_ += change.text;
    });
    if (socket) socket_ = std::move(*socket);
  }

  /// Runs a client on a thread of its own while the loop serves it.
  template <typename Function>
  auto serve(Function client) {
    auto result = std::async(std::launch::async, client);
    const auto isReady = [&] { return result.wait_for(0s) == std::future_status::ready; };
    // In short turns: that a thread has ended is no event of the loop.
    EXPECT_TRUE(eventually([&] { return loop_.runUntil(isReady, 5ms); }));
    static_cast<void>(loop_.runUntil([] { return false; }, 20ms));
    return result.get();
  }

  const TemporaryFolder folder_;
  const std::string path_ = folder_ / "status";
  EventLoop loop_;
  std::unique_ptr<StatusSocket> socket_;
  std::string heard_;
};

TEST_F(StatusSocketTest, HearsWhatTheProvidersClientSends) {
  ASSERT_NE(socket_, nullptr);
  const bool isSent = serve([this] {
    auto client = IPCClient::make(path_);
    return client &&
           client->sendMessage(statusMessageName,
                               makeStatusContent(ProxyProviderStatus::started, {})) &&
           client->sendMessage("SomethingElse", Data::copying("x")) &&
           client->sendMessage(statusMessageName,
                               makeStatusContent(ProxyProviderStatus::stopped, "bye"));
  });
  EXPECT_TRUE(isSent);
  EXPECT_EQ(heard_, "+-bye");
  socket_ = nullptr;
  EXPECT_TRUE(folder_.isEmpty());
}

TEST_F(StatusSocketTest, TakesPayloadsInPiecesAndDropsClientsThatTalkNonsense) {
  const auto whole =
      makePayload(statusMessageName, makeStatusContent(ProxyProviderStatus::stopped, "piecewise"));
  ASSERT_TRUE(whole.has_value());
  const auto isTaken = serve([&] {
    auto client = IPCClient::make(path_);
    for (const std::uint8_t byte : *whole)
      if (!client || !client->send({&byte, 1})) return false;
    return true;
  });
  EXPECT_TRUE(isTaken);
  EXPECT_EQ(heard_, "-piecewise");

  const auto broken = [&](std::size_t at, std::uint8_t value) {
    auto bytes = *whole;
    bytes[at] = value;
    return bytes;
  };
  for (const auto& nonsense : {broken(0, 0xFF), broken(3, 5), broken(7, 11), broken(31, 1),
                               broken(63, 0xFF), broken(63, 1)}) {
    const auto received = serve([&] {
      auto client = IPCClient::make(path_);
      static_cast<void>(client->send(nonsense));
      return client->receive(1);  // nothing: the other side has hung up
    });
    EXPECT_TRUE(!received || received->isEmpty());
  }
  EXPECT_EQ(heard_, "-piecewise");
}

TEST_F(StatusSocketTest, ManyThatNeverShakeHandsDoNotKeepAnotherOut) {
  std::vector<FileDescriptor> idle;
  const bool isSent = serve([&] {
    for (int index = 0; index < 20; ++index) {
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      std::ranges::copy(path_, address.sun_path);
      idle.emplace_back(::socket(AF_UNIX, SOCK_STREAM, 0));
      if (::connect(idle.back().get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        return false;
    }
    auto client = IPCClient::make(path_);
    return client && client->sendMessage(statusMessageName,
                                         makeStatusContent(ProxyProviderStatus::started, {}));
  });
  EXPECT_TRUE(isSent);
  EXPECT_EQ(heard_, "+");
}

TEST_F(StatusSocketTest, RefusesAPathThatNoProviderCanUse) {
  const auto listen = [this](std::size_t length) {
    const std::string path =
        folder_ / std::string(length - folder_.path().string().size() - 1, 'p');
    EXPECT_EQ(path.size(), length);
    return StatusSocket::listen(loop_, path, [](const StatusChange&) {}).has_value();
  };
  EXPECT_TRUE(listen(103));
  EXPECT_FALSE(listen(104));
}

TEST(PrivateFolderTest, KeepsOthersOutAndSweepsBehindTheKilled) {
  const TemporaryFolder place;
  place.write("name-999999999-dead/control.sock", "");
  place.write("other-999999999-dead/control.sock", "");
  std::filesystem::path path;
  {
    auto made = PrivateFolder::make("name", {"/proc/none", place.path()});
    ASSERT_TRUE(made.has_value());
    const PrivateFolder folder = std::move(*made);
    path = folder.path();
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms::owner_all);
    EXPECT_EQ(liveFolders(place.path(), "name"), std::vector{path});
    std::ofstream(path / "file") << "x";
  }
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_FALSE(std::filesystem::exists(place / "name-999999999-dead"));
  EXPECT_TRUE(std::filesystem::exists(place / "other-999999999-dead"));
}

class ControlTest : public testing::Test {
 protected:
  [[nodiscard]] std::string failureOf(FakeProvider::Manner manner, const std::string& call) {
    const FakeProvider fake(path_, std::move(manner));
    auto client = ControlClient::connect(loop_, path_);
    const auto reply = (*client)->call(call, json::object(), 300ms);
    return reply ? std::string() : reply.error().message + "|" + reply.error().advice;
  }

  const TemporaryFolder folder_;
  const std::string path_ = folder_ / "control.sock";
  EventLoop loop_;
};

TEST_F(ControlTest, FailuresSayWhatHappenedAndWhatToDo) {
  EXPECT_EQ(failureOf({}, "status"), "");
  EXPECT_TRUE(failureOf({}, "nonsense").starts_with("there is no such call|the provider is older"));
  EXPECT_TRUE(failureOf({}, "stopProxy").starts_with("no provider is running|start it with"));
  FakeProvider::Manner mute;
  mute.mutedCall = "status";
  EXPECT_TRUE(failureOf(mute, "status").starts_with("the provider did not answer \"status\""));
  FakeProvider::Manner fatal;
  fatal.fatalCall = "status";
  EXPECT_TRUE(failureOf(fatal, "status").starts_with("the provider has hung up"));

  const auto connecting = [&](const std::string& path) {
    const auto client = ControlClient::connect(loop_, path);
    return client ? 0 : client.error();
  };
  EXPECT_EQ(connecting(folder_ / "none"), ENOENT);
  EXPECT_EQ(connecting(std::string(200, 'p')), ENAMETOOLONG);
  EXPECT_TRUE(connectFailure("/p", EACCES).message.starts_with("not permitted"));
  EXPECT_TRUE(connectFailure("/p", EACCES).advice.contains("sudo"));
  EXPECT_TRUE(connectFailure("/p", ECONNREFUSED).advice.contains("tandor run"));
}

TEST_F(ControlTest, EventsComeBetweenRepliesAndTheEndIsNoticed) {
  auto fake = std::make_unique<FakeProvider>(path_);
  auto client = ControlClient::connect(loop_, path_);
  ASSERT_TRUE(client.has_value());
  std::vector<json> events;
  (*client)->setEventHandler([&](const json& event) { events.push_back(event); });
  ASSERT_TRUE((*client)->call("watch", {{"flows", true}}).has_value());
  fake->push({{"event", "open"}, {"text", std::string(200'000, 'x')}});
  fake->push({{"event", "gap"}, {"lost", 3}});
  const auto reply = (*client)->call("flows");
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->at("flows").size(), 1);
  ASSERT_EQ(events.size(), 2);
  EXPECT_EQ(numberMember(events[1], "lost"), 3);

  fake = nullptr;
  EXPECT_TRUE(loop_.runUntil([&] { return !(*client)->isConnected(); }, patience));
  EXPECT_FALSE((*client)->call("status").has_value());
}

}  // namespace
}  // namespace tandor::host::test
