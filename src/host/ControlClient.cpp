#include "host/ControlClient.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

#include "host/JSONValues.h"

namespace tandor::host {

using nlohmann::json;

namespace {

/// Longer lines are no replies of ours.
constexpr std::size_t longestLine = std::size_t{64} << 20;
constexpr timeval sendLimit{.tv_sec = 5, .tv_usec = 0};

/// What the control socket itself answers, by its code.
std::string adviceFor(std::int64_t code) {
  constexpr std::int64_t unknownCall = -2;
  constexpr std::int64_t notRunning = -4;
  constexpr std::int64_t alreadyRunning = -5;
  switch (code) {
    case unknownCall:
      return "the provider is older than this program; install the same version of both";
    case notRunning:
      return "start it with `tandor start` or `tandor run`";
    case alreadyRunning:
      return "change it with `tandor update`, or stop it with `tandor stop`";
    default:
      return "`tandor doctor` tells what is missing; the provider's log says more";
  }
}

Failure brokenOff() {
  return {"the provider has hung up without an answer",
          "it refuses other users than its own (try sudo); if it crashed, its log says why"};
}

}  // namespace

std::expected<std::unique_ptr<ControlClient>, int> ControlClient::connect(EventLoop& loop,
                                                                          const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return std::unexpected(ENAMETOOLONG);
  std::ranges::copy(path, address.sun_path);
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket.isOpen()) return std::unexpected(errno);
  ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &sendLimit, sizeof sendLimit);
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    return std::unexpected(errno);
  return std::unique_ptr<ControlClient>(
      new ControlClient(loop, std::move(socket)));  // NOLINT(*-owning-memory): private
}

ControlClient::ControlClient(EventLoop& loop, FileDescriptor socket)
    : loop_(loop),
      socket_(std::move(socket)),
      watch_(loop.whenReadable(socket_.get(), [this] { receive(); })) {}

std::expected<json, Failure> ControlClient::call(std::string_view name, json members,
                                                 std::chrono::milliseconds limit) {
  const std::uint64_t id = ++lastId_;
  members["id"] = id;
  members["call"] = name;
  reply_ = std::nullopt;
  if (!isConnected_ || !send(jsonLine(members))) return std::unexpected(brokenOff());
  if (!loop_.runUntil([this] { return reply_ || !isConnected_; }, limit)) {
    return fail(fmt::format("the provider did not answer \"{}\" in {} seconds", name,
                            std::chrono::duration_cast<std::chrono::seconds>(limit).count()),
                "look at its log; if it hangs, end its process");
  }
  if (!reply_) return std::unexpected(brokenOff());
  json reply = std::move(*std::exchange(reply_, std::nullopt));
  const json error = reply.value("error", json());
  if (error.is_null()) return reply;
  return std::unexpected(Failure{textMember(error, "description").value_or("the provider refused"),
                                 adviceFor(numberMember(error, "code").value_or(0))});
}

bool ControlClient::send(std::string_view line) {
  while (!line.empty()) {
    const ssize_t sent = ::send(socket_.get(), line.data(), line.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return false;
    line.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

void ControlClient::receive() {
  std::array<char, 65536> piece;
  const ssize_t count = ::recv(socket_.get(), piece.data(), piece.size(), MSG_DONTWAIT);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count <= 0 || unread_.size() > longestLine) {
    isConnected_ = false;
    watch_ = {};
    return;
  }
  const std::size_t known = unread_.size();
  unread_.append(piece.data(), static_cast<std::size_t>(count));
  std::size_t begin = 0;
  for (std::size_t end = unread_.find('\n', known); end != std::string::npos;
       end = unread_.find('\n', begin)) {
    handleLine(std::string_view(unread_).substr(begin, end - begin));
    begin = end + 1;
  }
  unread_.erase(0, begin);
}

void ControlClient::handleLine(std::string_view line) {
  json value = json::parse(line, nullptr, /*allow_exceptions=*/false);
  if (!value.is_object()) return;
  if (value.contains("event")) {
    if (eventHandler_) eventHandler_(value);
  } else if (const auto id = numberMember(value, "id"); id && std::cmp_equal(*id, lastId_)) {
    reply_ = std::move(value);
  }
}

Failure connectFailure(const std::string& path, int error) {
  switch (error) {
    case ENOENT:
    case ECONNREFUSED:
      return {
          fmt::format("no provider listens on {}", path),
          "start one with `sudo tandor run`, or the service with `sudo systemctl start tandor`"};
    case EACCES:
    case EPERM:
      return {fmt::format("not permitted to talk to the provider on {}", path),
              "run the same command with sudo"};
    case ENAMETOOLONG:
      return {fmt::format("the path of the control socket is too long: {}", path),
              "use one of at most 107 bytes", exitWrongUsage};
    default:
      return {fmt::format("cannot talk to the provider on {}: {}", path,
                          std::generic_category().message(error)),
              "see with `tandor doctor` what is wrong"};
  }
}

}  // namespace tandor::host
