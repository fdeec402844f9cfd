#include "host/StatusSocket.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <span>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

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

std::expected<std::unique_ptr<StatusSocket>, Failure> StatusSocket::listenBeside(
    const std::string& controlPath, EventLoop& loop, Handler handler) {
  auto places = runtimePlaces();
  places.insert(places.begin(), std::filesystem::path(controlPath).parent_path());
  auto folder = PrivateFolder::make("tandor-status", places);
  if (!folder) return std::unexpected(folder.error());
  auto socket = listen(loop, (folder->path() / "status").string(), std::move(handler));
  if (socket) (*socket)->folder_.emplace(std::move(*folder));
  return socket;
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
  const auto bytes = std::span(piece).first(count > 0 ? static_cast<std::size_t>(count) : 0);
  if (!bytes.empty() && advance(client, bytes)) return;
  clients_.remove_if([&](const auto& entry) { return entry.get() == &client; });
}

bool StatusSocket::advance(Client& client, std::span<const std::uint8_t> bytes) {
  for (; client.stage != Client::Stage::payloads && !bytes.empty(); bytes = bytes.subspan(1)) {
    const bool isFirst = client.stage == Client::Stage::firstGreeting;
    if (isFirst && !client.greet(4)) return false;
    client.stage = isFirst ? Client::Stage::secondGreeting : Client::Stage::payloads;
  }
  return client.payloads.read(bytes, handler_);
}

}  // namespace tandor::host
