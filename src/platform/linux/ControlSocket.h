#pragma once

#include <expected>
#include <string>

#include "platform/linux/FileDescriptor.h"

namespace tandor {

/// The listening control socket.
struct ControlSocket {
  FileDescriptor descriptor;
  /// The path to unlink at the end; empty when the service manager keeps the socket.
  std::string ownedPath;
};

/// The path that is used when none is given: in the runtime directory that the service manager
/// made, else under /run.
[[nodiscard]] std::string defaultControlPath();

/// Takes the socket that the service manager passed, if it did; else listens at `path`, readable
/// and writable for its owner only. A socket that a crashed process left there is replaced; one
/// that somebody listens on is an error. Fails with the words for the user.
[[nodiscard]] std::expected<ControlSocket, std::string> openControlSocket(const std::string& path);

/// Whether the peer of a connected socket is root or this process's own user.
[[nodiscard]] bool isPeerTrusted(int descriptor);

}  // namespace tandor
