#include "support/FakeHost.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

#include <gtest/gtest.h>

namespace tandor::test {

std::size_t openDescriptors() {
  // The one that reads the directory is counted each time.
  return static_cast<std::size_t>(
      std::ranges::distance(std::filesystem::directory_iterator("/proc/self/fd")));
}

FakeHost::FakeHost(Manner manner, std::function<void()> afterFirstPiece, std::size_t pathLength)
    : manner_(manner),
      afterFirstPiece_(std::move(afterFirstPiece)),
      directory_(testing::TempDir() + "tandor-XXXXXX"),
      listener_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  std::signal(SIGPIPE, SIG_IGN);
  EXPECT_NE(::mkdtemp(directory_.data()), nullptr);
  path_ = directory_ + "/host";
  path_.resize(std::max(path_.size(), pathLength), 't');
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::ranges::copy(path_, address.sun_path);
  EXPECT_EQ(::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(::listen(listener_, 8), 0);
  thread_ = std::jthread([this] { serve(); });
}

FakeHost::~FakeHost() {
  ::shutdown(listener_, SHUT_RDWR);  // wakes the thread
  thread_.join();
  ::close(listener_);
  std::filesystem::remove_all(directory_);
}

std::vector<std::uint8_t> FakeHost::nextMessage() {
  std::unique_lock lock(mutex_);
  if (!arrived_.wait_for(lock, std::chrono::seconds(5), [this] { return !messages_.empty(); }))
    return {};
  auto message = std::move(messages_.front());
  messages_.pop_front();
  return message;
}

void FakeHost::serve() {
  for (int client = 0; (client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;
       ::close(client)) {
    if (manner_ == Manner::closesAtOnce || !shakeHands(client)) continue;
    auto message = readToTheEnd(client);
    const std::scoped_lock lock(mutex_);
    messages_.push_back(std::move(message));
    arrived_.notify_all();
  }
}

bool FakeHost::shakeHands(int client) const {
  constexpr std::array<char, 4> greeting = {'h', 'e', 'l', 'o'};
  for (const std::size_t count : {2U, 4U}) {
    const std::size_t sent = manner_ == Manner::silent ? 0 : manner_ == Manner::terse ? 1 : count;
    if (std::cmp_not_equal(::write(client, greeting.data(), sent), sent)) return false;
    char acknowledgement = 'x';
    if (::read(client, &acknowledgement, 1) != 1) return false;
    EXPECT_EQ(acknowledgement, '\0');
    if (manner_ == Manner::closesAfterGreeting) return false;
  }
  return true;
}

std::vector<std::uint8_t> FakeHost::readToTheEnd(int client) const {
  std::vector<std::uint8_t> message;
  std::array<std::uint8_t, 4096> piece{};
  for (ssize_t count = 0; (count = ::read(client, piece.data(), piece.size())) > 0;) {
    if (message.empty() && afterFirstPiece_) afterFirstPiece_();
    message.insert(message.end(), piece.begin(), piece.begin() + count);
  }
  return message;
}

}  // namespace tandor::test
