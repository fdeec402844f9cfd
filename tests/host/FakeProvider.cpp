#include "host/FakeProvider.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

#include "ipc/AppMessage.h"
#include "ipc/IPCClient.h"
#include "ipc/StatusMessage.h"
#include "platform/foundation/Base64.h"

namespace tandor::host::test {

using nlohmann::json;

FakeProvider::FakeProvider(const std::string& path, Manner manner)
    : manner_(std::move(manner)),
      path_(path),
      listener_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  std::signal(SIGPIPE, SIG_IGN);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::ranges::copy(path, address.sun_path);
  if (::bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener_.get(), 8) != 0)
    throw std::runtime_error("cannot listen on " + path);
  thread_ = std::jthread([this] { serve(); });
}

FakeProvider::~FakeProvider() {
  isEnding_ = true;
  thread_.join();
  ::unlink(path_.c_str());
}

std::vector<json> FakeProvider::requests(std::string_view call) const {
  const std::scoped_lock lock(mutex_);
  std::vector<json> found;
  std::ranges::copy_if(requests_, std::back_inserter(found),
                       [&](const json& request) { return request.at("call") == call; });
  return found;
}

json FakeProvider::lastUpdate() const {
  const auto updates = requests("appMessage");
  if (updates.empty()) return {};
  const auto bytes = decodeBase64(updates.back().at("data").get<std::string>());
  const auto message = readAppMessage(Data::copying(bytes.value()));
  if (!message || message->name != "updateConfig") return {};
  return json::parse(message->content.characters());
}

void FakeProvider::push(const json& line) const {
  const std::scoped_lock lock(mutex_);
  const std::string text = line.dump() + "\n";
  for (const Client& client : clients_)
    if (client.isWatching) ::send(client.socket.get(), text.data(), text.size(), MSG_NOSIGNAL);
}

void FakeProvider::serve() {
  constexpr int interval = 5;
  while (!isEnding_) {
    std::vector<pollfd> waiting = {{.fd = listener_.get(), .events = POLLIN, .revents = 0}};
    for (const Client& client : clients_)
      waiting.push_back({.fd = client.socket.get(), .events = POLLIN, .revents = 0});
    if (::poll(waiting.data(), waiting.size(), interval) <= 0) continue;
    for (std::size_t index = waiting.size() - 1; index > 0; --index) {
      const auto client = clients_.begin() + static_cast<std::ptrdiff_t>(index - 1);
      if (waiting[index].revents == 0 || receive(*client)) continue;
      const std::scoped_lock lock(mutex_);
      clients_.erase(client);
    }
    if (waiting.front().revents == 0) continue;
    const std::scoped_lock lock(mutex_);
    clients_.push_back(
        {FileDescriptor(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)), {}, false});
  }
}

bool FakeProvider::receive(Client& client) {
  std::array<char, 4096> piece;
  const ssize_t count = ::read(client.socket.get(), piece.data(), piece.size());
  if (count <= 0) return false;
  client.unread.append(piece.data(), static_cast<std::size_t>(count));
  for (std::size_t end = 0; (end = client.unread.find('\n')) != std::string::npos;) {
    const json request = json::parse(client.unread.substr(0, end));
    client.unread.erase(0, end + 1);
    {
      const std::scoped_lock lock(mutex_);
      requests_.push_back(request);
    }
    if (!answer(client, request)) return false;
  }
  return true;
}

bool FakeProvider::answer(Client& client, const json& request) {
  const auto call = request.at("call").get<std::string>();
  if (call == manner_.fatalCall) return false;
  if (call == manner_.mutedCall) return true;
  json reply = {{"id", request.at("id")}, {"error", nullptr}};
  if (call == "status") {
    reply["status"] = {{"state", state_}, {"pid", ::getpid()}, {"version", manner_.version}};
  } else if (call == "startProxy" && !manner_.startError.empty()) {
    state_ = "failed";
    reply["error"] = {{"code", 1}, {"description", manner_.startError}};
  } else if (call == "startProxy") {
    const json values = request.at("protocolConfiguration").at("providerConfiguration");
    statusPath_ = values.value("socketPath", "");
    state_ = "running";
    tellStatus(true);
  } else if (call == "stopProxy" && state_ != "running") {
    reply["error"] = {{"code", -4}, {"description", "no provider is running"}};
  } else if (call == "stopProxy") {
    state_ = "stopped";
    tellStatus(false);
  } else if (call == "watch") {
    client.isWatching = true;
  } else if (call == "flows") {
    reply["flows"] = json::array({{{"id", 7}, {"app", "/usr/bin/first"}, {"protocol", "tcp"}}});
  } else if (call == "appMessage") {
    reply["data"] = request.at("data");
  } else if (call != "sleep" && call != "wake") {
    reply["error"] = {{"code", -2}, {"description", "there is no such call"}};
  }
  const std::string text = reply.dump() + "\n";
  ::send(client.socket.get(), text.data(), text.size(), MSG_NOSIGNAL);
  return true;
}

void FakeProvider::tellStatus(bool hasStarted) const {
  if (statusPath_.empty()) return;
  auto client = IPCClient::make(statusPath_);
  if (!client) return;
  static_cast<void>(client->sendMessage(
      statusMessageName, hasStarted
                             ? makeStatusContent(ProxyProviderStatus::started, std::nullopt)
                             : makeStatusContent(ProxyProviderStatus::stopped, "as it was told")));
}

}  // namespace tandor::host::test
