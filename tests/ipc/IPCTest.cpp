#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <future>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ipc/AppMessage.h"
#include "ipc/IPCClient.h"
#include "ipc/Payload.h"
#include "platform/linux/FileDescriptor.h"
#include "support/Waiting.h"

namespace tandor::test {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
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

 private:
  const std::size_t before_ = openDescriptors();
};

std::string errorOf(const auto& result) {
  return result ? "" : result.error().description();
}

TEST_F(IPCClientTest, FailuresOfTheMakingLeaveNoDescriptor) {
  const Host silent([](int client) { readToTheEnd(client); });
  const Host atOnce([](int /*client*/) {});
  const Host later([](int client) { greet(client, 2); });
  const std::pair<std::string, IPCError> cases[] = {
      {"", IPCError::bsdError("connect socket failed", EINVAL)},
      {std::string(103, 'p'), IPCError::bsdError("connect socket failed", ENOENT)},
      {std::string(104, 'p'), IPCError::invalidSocketPath("path too long")},
      {atOnce.path(), IPCError::bsdError("write failed", EPIPE)},
      {later.path(), IPCError::bsdError("write failed", EPIPE)},
      {silent.path(), IPCError::bsdError("receive failed", EAGAIN)}};
  for (const auto& [path, error] : cases) {
    const std::size_t before = openDescriptors();
    EXPECT_EQ(errorOf(IPCClient::make(path, 30ms)), error.description());
    // The host's own end of the connection may stay open for a moment.
    EXPECT_TRUE(eventually([before] { return openDescriptors() <= before; })) << path;
  }
}

TEST_F(IPCClientTest, WaitsNoLongerForAHostThatAnswersBitByBit) {
  constexpr auto limit = 200ms;
  const Host slow([limit](int client) {
    for (const std::size_t count : {2U, 4U}) {
      std::this_thread::sleep_for(limit * 3 / 4);
      static_cast<void>(!::write(client, "hhhh", count));
    }
    readToTheEnd(client);
  });
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(errorOf(IPCClient::make(slow.path(), limit)),
            IPCError::bsdError("receive failed", EAGAIN).description());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, limit * 5 / 4);
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
  std::promise<Bytes> received;
  const Host host([&received, sender = ::pthread_self()](int client) {
    greet(client, 2);
    greet(client, 4);
    received.set_value(readToTheEnd(client, [sender] { ::pthread_kill(sender, SIGUSR1); }));
  });
  auto client = IPCClient::make(host.path());
  ASSERT_EQ(errorOf(client), "");
  EXPECT_EQ(errorOf(client->send(Bytes(most.size() + 1))), "notSupport");
  EXPECT_EQ(errorOf(client->send({})), "");
  EXPECT_EQ(errorOf(client->send(most)), "");
  EXPECT_EQ(errorOf(client->close()), "");
  EXPECT_TRUE(received.get_future().get() == most);
  ::sigaction(SIGUSR1, &earlier, nullptr);
}

std::string payload(std::string_view name, const std::optional<Data>& content) {
  const auto made = makePayload(name, content);
  return made ? std::string(made->begin(), made->end()) : made.error().description();
}

/// The bytes that do not differ between two payloads of the same name and content.
std::string fixedPart(std::string bytes) {
  return bytes.replace(40, 16, "<message id>").replace(8, 16, "<packet id>");
}

TEST(Payload, ByteForByte) {
  EXPECT_EQ(fixedPart(payload("ab", Data::copying("\x01"))),
            "\0\0\0\x47\0\0\0\x0A<packet id>\0\0\0\0\0\0\0\x23\0\0\0\0\0\0\0\0<message id>"
            "\0\0\0\0\0\0\0\x02"
            "ab\0\0\0\0\0\0\0\x01\x01"s);
  // Lengths count bytes, and an absent content looks like an empty one.
  EXPECT_TRUE(payload("\xC3\xA9", std::nullopt).ends_with("\0\x02\xC3\xA9\0\0\0\0\0\0\0\0"s));
  const std::string large = fixedPart(payload("n", Data::copying(std::string(70'000, 'x'))));
  EXPECT_TRUE(large.starts_with("\0\x01\x11\xB5\0\0\0\x0A<packet id>\0\0\0\0\0\x01\x11\x91"s));
  EXPECT_TRUE(large.contains("n\0\0\0\0\0\x01\x11\x70x"s));
  EXPECT_EQ(payload("\xFF", Data()), "serializeFailed");
}

TEST(Payload, CarriesTwoFreshIdentifiers) {
  const std::string one = payload("name", Data());
  const std::string two = payload("name", Data());
  EXPECT_EQ(fixedPart(one), fixedPart(two));
  EXPECT_NE(one.substr(8, 16), two.substr(8, 16));
  EXPECT_NE(one.substr(40, 16), two.substr(40, 16));
  EXPECT_NE(one.substr(8, 16), one.substr(40, 16));
  EXPECT_EQ((one[14] & 0xF0) | (one[46] & 0xF0), 0x40);  // version 4
}

TEST(AppMessage, TellsWhatIsMissingOrWrong) {
  const auto failure = [](const std::string& message) {
    // Data of exactly these bytes, so that AddressSanitizer sees any read past them.
    const auto read = readAppMessage(Data::copying(message));
    return read ? "" : read.error();
  };
  const std::string message = "\0\0\0\x03n\xC3\xA9\0\0\0\x02{}"s;
  for (std::size_t length = 0; length < message.size(); ++length) {
    EXPECT_EQ(failure(message.substr(0, length)), length < 4    ? "no name length"
                                                  : length < 7  ? "no name string"
                                                  : length < 11 ? "no content length"
                                                                : "no content data");
  }
  EXPECT_EQ(failure(message + "more"), "");
  // 32-bit sums would wrap around.
  EXPECT_EQ(failure("\xFF\xFF\xFF\xFC"
                    "abcd"s),
            "no name string");
  EXPECT_EQ(failure("\0\0\0\x01n\xFF\xFF\xFF\xF7{}"s), "no content data");
  EXPECT_EQ(failure("\0\0\0\x02\xFF\xFE"s), "name string decode failed");
}

}  // namespace
}  // namespace tandor::test
