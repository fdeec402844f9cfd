#include "host/StatusSocket.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>
#include <vector>

#include <fmt/format.h>

#include "ipc/IPCClient.h"

namespace tandor::host {
namespace {

constexpr std::size_t mostClients = 8;
constexpr int backlog = 8;

std::unexpected<Failure> cannotListen(const std::string& path, std::string_view why) {
  return fail(fmt::format("cannot listen on {}: {}", path, why),
              "set TMPDIR to a folder that you may write to, with a short path");
}

}  // namespace

/// A provider that has connected, on its way through the handshake to its payloads.
struct StatusSocket::Client {
  enum class Stage : std::uint8_t { firstGreeting, secondGreeting, payloads };

  FileDescriptor socket;
  Stage stage = Stage::firstGreeting;
  std::vector<std::uint8_t> unread;
  PayloadReader payloads;
  EventLoop::Watch watch;

  /// Greets with `count` bytes, whose values mean nothing to a provider.
  [[nodiscard]] bool greet(std::size_t count) const {
    static constexpr std::array<char, 4> greeting{};
    return ::send(socket.get(), greeting.data(), count, MSG_NOSIGNAL | MSG_DONTWAIT) ==
           static_cast<ssize_t>(count);
  }
};

std::expected<std::unique_ptr<StatusSocket>, Failure> StatusSocket::listen(EventLoop& loop,
                                                                           const std::string& path,
                                                                           Handler handler) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= IPCClient::maximumPathLength)
    return cannotListen(path, "the path is longer than a provider can use");
  std::ranges::copy(path, address.sun_path);
  FileDescriptor listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!listener.isOpen() ||
      ::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener.get(), backlog) != 0)
    return cannotListen(path, std::generic_category().message(errno));
  return std::unique_ptr<StatusSocket>(new StatusSocket(loop, std::move(listener),
                                                        path,  // NOLINT(*-owning-memory): private
                                                        std::move(handler)));
}

StatusSocket::StatusSocket(EventLoop& loop, FileDescriptor listener, std::string path,
                           Handler handler)
    : loop_(loop),
      listener_(std::move(listener)),
      path_(std::move(path)),
      handler_(std::move(handler)),
      watch_(loop.whenReadable(listener_.get(), [this] { accept(); })) {}

StatusSocket::~StatusSocket() {
  ::unlink(path_.c_str());
}

void StatusSocket::accept() {
  FileDescriptor socket(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!socket.isOpen()) return;
  if (clients_.size() >= mostClients) clients_.pop_front();  // whoever waits longest hangs
  auto client = std::make_unique<Client>();
  client->socket = std::move(socket);
  if (!client->greet(2)) return;
  client->watch =
      loop_.whenReadable(client->socket.get(), [this, target = client.get()] { serve(*target); });
  clients_.push_back(std::move(client));
}

void StatusSocket::serve(Client& client) {
  std::array<std::uint8_t, 4096> piece;
  const ssize_t count = ::read(client.socket.get(), piece.data(), piece.size());
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count > 0) {
    client.unread.insert(client.unread.end(), piece.begin(), piece.begin() + count);
    if (advance(client)) return;
  }
  clients_.remove_if([&](const auto& entry) { return entry.get() == &client; });
}

bool StatusSocket::advance(Client& client) {
  while (client.stage != Client::Stage::payloads && !client.unread.empty()) {
    client.unread.erase(client.unread.begin());
    if (client.stage == Client::Stage::firstGreeting) {
      if (!client.greet(4)) return false;
      client.stage = Client::Stage::secondGreeting;
    } else {
      client.stage = Client::Stage::payloads;
    }
  }
  client.payloads.append(client.unread);
  client.unread.clear();
  while (client.stage == Client::Stage::payloads) {
    const auto message = client.payloads.next();
    if (!message) return false;
    if (!*message) break;
    if (const auto change = statusChange(**message)) handler_(*change);
  }
  return true;
}

}  // namespace tandor::host
