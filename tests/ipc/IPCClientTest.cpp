#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <future>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ipc/IPCClient.h"
#include "platform/linux/FileDescriptor.h"
#include "support/Waiting.h"

namespace tandor::test {
namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;

/// A host application: serves one client, by a function on a thread of its own, and closes it.
class Host {
 public:
  using Serve = std::function<void(int client)>;
  explicit Host(const Serve& serve)
      : path_(testing::TempDir() + "tandor-host-" + std::to_string(::getpid()) + "-") {
    static int number = 0;
    path_ += std::to_string(number++);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::ranges::copy(path_, address.sun_path);
    EXPECT_EQ(::bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(listener_.get(), 8), 0);
    thread_ = std::jthread([this, serve] {
      const FileDescriptor client(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (client.isOpen()) serve(client.get());
    });
  }
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;
  ~Host() {
    ::shutdown(listener_.get(), SHUT_RDWR);  // wakes the thread
    ::unlink(path_.c_str());
  }
  [[nodiscard]] const std::string& path() const noexcept { return path_; }

 private:
  std::string path_;
  FileDescriptor listener_{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  std::jthread thread_;
};

/// Greets with so many bytes; the client acknowledges them.
void greet(int client, std::size_t count) {
  const std::string greeting(count, 'h');
  EXPECT_EQ(::write(client, greeting.data(), count), static_cast<ssize_t>(count));
  char acknowledgement = 'x';
  EXPECT_EQ(::read(client, &acknowledgement, 1), 1);
  EXPECT_EQ(acknowledgement, '\0');
}

Bytes readToTheEnd(int client, const std::function<void()>& afterFirstPiece = {}) {
  Bytes all;
  std::array<std::uint8_t, 4096> piece{};
  for (ssize_t count = 0; (count = ::read(client, piece.data(), piece.size())) > 0;) {
    if (all.empty() && afterFirstPiece) afterFirstPiece();
    all.insert(all.end(), piece.begin(), piece.begin() + count);
  }
  return all;
}

/// Fails when descriptors are left open behind it.
class IPCClientTest : public testing::Test {
 protected:
  void SetUp() override { std::signal(SIGPIPE, SIG_IGN); }  // as a provider does
  void TearDown() override { EXPECT_EQ(openDescriptors(), before_); }

  /// A host that shakes hands and takes one message, which a test finds in received_.
  [[nodiscard]] Host::Serve taking(const std::function<void()>& afterFirstPiece) {
    return [=, this](int client) {
      greet(client, 2);
      greet(client, 4);
      received_.set_value(readToTheEnd(client, afterFirstPiece));
    };
  }
  Bytes received() { return received_.get_future().get(); }

 private:
  const std::size_t before_ = openDescriptors();
  std::promise<Bytes> received_;
};

std::string errorOf(const auto& result) {
  return result ? "" : result.error().description();
}
std::string failure(std::string_view what, int errorNumber) {
  return IPCError::bsdError(what, errorNumber).description();
}

TEST_F(IPCClientTest, FailuresOfTheMakingLeaveNoDescriptor) {
  const Host silent([](int client) { readToTheEnd(client); });
  const Host atOnce([](int /*client*/) {});
  const Host later([](int client) { greet(client, 2); });
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
    EXPECT_TRUE(eventually([before] { return openDescriptors() <= before; })) << path;
  }
}

TEST_F(IPCClientTest, SendsAMebibyteWholeAndNotAByteMore) {
  struct sigaction interrupting{};
  interrupting.sa_handler = [](int) {};
  struct sigaction earlier{};
  ::sigaction(SIGUSR1, &interrupting, &earlier);
  Bytes most(1'048'576);
  std::ranges::generate(most, [number = 0U]() mutable {
    return static_cast<std::uint8_t>((number++ * 2'654'435'761U) >> 13U);
  });
  // The host reads a piece and interrupts the write, which ends with only a part transferred.
  const Host host(taking([sender = ::pthread_self()] { ::pthread_kill(sender, SIGUSR1); }));
  auto client = IPCClient::make(host.path());
  ASSERT_EQ(errorOf(client), "");
  EXPECT_EQ(errorOf(client->send(Bytes(most.size() + 1))), "notSupport");
  EXPECT_EQ(errorOf(client->send({})), "");
  EXPECT_EQ(errorOf(client->send(most)), "");
  EXPECT_EQ(errorOf(client->close()), "");
  EXPECT_TRUE(received() == most);
  ::sigaction(SIGUSR1, &earlier, nullptr);
}

}  // namespace
}  // namespace tandor::test
