#pragma once

#include <expected>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "host/EventLoop.h"
#include "host/Failure.h"
#include "host/PrivateFolder.h"
#include "host/StatusPayload.h"
#include "platform/linux/FileDescriptor.h"

namespace tandor::host {

/// The socket on which a provider tells that it has started or stops. Works inside its loop; a
/// provider waits for the handshake, so the loop must run while one starts or stops.
class StatusSocket {
 public:
  using Handler = std::function<void(const StatusChange&)>;

  /// Listens at `path`, whose folder keeps others out. `handler` runs inside the loop, which
  /// outlives the socket. The path is unlinked at the end.
  [[nodiscard]] static std::expected<std::unique_ptr<StatusSocket>, Failure> listen(
      EventLoop& loop, const std::string& path, Handler handler);
  /// The same in a folder of its own, beside the control socket if that is possible: a provider in
  /// a sandbox may have a /tmp of its own.
  [[nodiscard]] static std::expected<std::unique_ptr<StatusSocket>, Failure> listenBeside(
      const std::string& controlPath, EventLoop& loop, Handler handler);

  StatusSocket(const StatusSocket&) = delete;
  StatusSocket& operator=(const StatusSocket&) = delete;
  ~StatusSocket();

  [[nodiscard]] const std::string& path() const noexcept { return path_; }

 private:
  struct Client;
  using Clients = std::list<std::unique_ptr<Client>>;

  StatusSocket(EventLoop& loop, FileDescriptor listener, std::string path, Handler handler);
  void accept();
  void serve(Client& client);
  /// Goes on with what the client has sent; false when it is to be dropped.
  [[nodiscard]] bool advance(Client& client, std::span<const std::uint8_t> bytes);

  EventLoop& loop_;
  std::optional<PrivateFolder> folder_;
  FileDescriptor listener_;
  std::string path_;
  Handler handler_;
  Clients clients_;
  EventLoop::Watch watch_;
};

}  // namespace tandor::host
