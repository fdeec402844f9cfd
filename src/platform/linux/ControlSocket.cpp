#include "platform/linux/ControlSocket.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

#include <fmt/format.h>
#include <systemd/sd-daemon.h>

namespace tandor {
namespace {

std::unexpected<std::string> failure(const std::string& path, int error) {
  return std::unexpected(
      fmt::format("cannot listen on {}: {}", path, std::generic_category().message(error)));
}

std::expected<sockaddr_un, std::string> addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) return failure(path, ENAMETOOLONG);
  std::ranges::copy(path, address.sun_path);
  return address;
}

bool isSomebodyListening(const sockaddr_un& address) {
  const FileDescriptor probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  return probe.isOpen() &&
         ::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

}  // namespace

std::string defaultControlPath() {
  const char* runtimeDirectory = std::getenv("RUNTIME_DIRECTORY");
  const std::string directory = runtimeDirectory != nullptr ? runtimeDirectory : "/run/tandor";
  return directory + "/control.sock";
}

std::expected<ControlSocket, std::string> openControlSocket(const std::string& path) {
  if (::sd_listen_fds(/*unset_environment=*/1) >= 1)
    return ControlSocket{FileDescriptor(SD_LISTEN_FDS_START), {}};

  const auto address = addressOf(path);
  if (!address) return std::unexpected(address.error());
  struct stat status{};
  if (::lstat(path.c_str(), &status) == 0) {
    if (!S_ISSOCK(status.st_mode)) return failure(path, EEXIST);
    if (isSomebodyListening(*address)) {
      return std::unexpected(
          fmt::format("another tandor-provider already listens on {}; stop it first", path));
    }
    ::unlink(path.c_str());
  } else if (const auto parent = std::filesystem::path(path).parent_path(); !parent.empty()) {
    std::error_code error;
    std::filesystem::create_directories(parent, error);
    if (error) return failure(path, error.value());
  }

  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket.isOpen()) return failure(path, errno);
  // The mode is narrow from the first moment on, not only after a chmod.
  const mode_t mask = ::umask(0177);
  const int bound =
      ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address);
  const int bindError = errno;
  ::umask(mask);
  if (bound != 0) return failure(path, bindError);
  if (::listen(socket.get(), SOMAXCONN) != 0) return failure(path, errno);
  return ControlSocket{std::move(socket), path};
}

bool isPeerTrusted(int descriptor) {
  ucred peer{};
  socklen_t length = sizeof peer;
  if (::getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) return false;
  return peer.uid == 0 || peer.uid == ::geteuid();
}

}  // namespace tandor
