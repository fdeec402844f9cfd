#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

#include "platform/linux/FileDescriptor.h"
#include "platform/linux/ServiceThread.h"

namespace tandor {

/// Why a request was not carried out, by the control socket itself.
enum class ControlError : std::int64_t {
  malformed = -1,
  unknownCall = -2,
  badArgument = -3,
  notRunning = -4,
  alreadyRunning = -5,
};

/// The control socket's server: one JSON object a line, both ways. Runs on the service thread.
class ControlServer {
 public:
  /// Answers one request, once. `members` are those that the reply has beside id and error. Any
  /// thread; when it returns, the reply is on its way out of the process.
  class Reply {
   public:
    void succeed() const;
    void succeed(const nlohmann::json& members) const;
    /// The same with one further member that is too long to be held: `pieces` gives its JSON text
    /// bit by bit, as the client reads it, and an empty one at its end. Called on the service
    /// thread, where this is called, too.
    void succeed(std::string_view member, std::move_only_function<std::string()> pieces) const;
    void fail(std::int64_t code, std::string_view description) const;
    void fail(ControlError error, std::string_view description) const {
      fail(static_cast<std::int64_t>(error), description);
    }

    // For a client that goes on listening; on the service thread.
    void push(const nlohmann::json& line) const;
    /// Calls `handler` when the client has hung up, once and never from within another call. A
    /// client has one such handler; whatever holds its replies lets go of them then.
    void whenHungUp(std::function<void()> handler) const;
    /// Calls `handler` once, when the client has read so much that no more than `bytes` are unsent,
    /// and never from within another call. One at a time for a client.
    void whenUnsentFallsTo(std::size_t bytes, std::function<void()> handler) const;
    [[nodiscard]] bool isConnected() const;
    [[nodiscard]] std::size_t unsentBytes() const;
    [[nodiscard]] bool isOfSameClient(const Reply& other) const noexcept {
      return client_ == other.client_;
    }

   private:
    friend class ControlServer;
    Reply(std::shared_ptr<class ControlClient> client, std::string id)
        : client_(std::move(client)), id_(std::move(id)) {}
    void send(nlohmann::json reply) const;
    std::shared_ptr<class ControlClient> client_;  // stays until every request is answered
    std::string id_;                               // the request's id, as JSON
  };

  /// Handles a request on the service thread, without blocking it.
  using Handler =
      std::function<void(const std::string& call, const nlohmann::json& request, Reply reply)>;

  /// `listener` is non-blocking and listens. `service` outlives the server.
  ControlServer(ServiceThread& service, FileDescriptor listener, Handler handler);
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;
  ~ControlServer();

 private:
  friend class ControlClient;
  class Acceptor;
  static void handleLine(const std::shared_ptr<ControlClient>& client, const Handler& handler,
                         std::string_view line);

  std::shared_ptr<Acceptor> acceptor_;
};

}  // namespace tandor
