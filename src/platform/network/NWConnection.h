#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/dispatch/DispatchQueue.h"
#include "platform/foundation/Data.h"
#include "platform/foundation/NSError.h"
#include "platform/network/NWEndpoint.h"
#include "platform/network/NWParameters.h"

namespace tandor {

/// An outbound connection over TCP or UDP.
///
/// Every handler and completion runs on the queue given to start(), and never inside the call that
/// it answers. No state handler runs after it was cleared. cancel() completes what is pending with
/// an error; bytes whose send has completed are still delivered, in order, before the end of the
/// stream. Operations may be called from any thread; calls from the queue itself cost nothing
/// extra.
class NWConnection {
 public:
  struct State {
    enum class Kind : std::uint8_t { setup, preparing, waiting, ready, failed, cancelled };

    Kind kind = Kind::setup;
    /// Present exactly for waiting and failed.
    std::optional<NSError> error;

    /// The state's name, for waiting and failed with the error in parentheses.
    [[nodiscard]] std::string description() const;
  };

  /// What a piece of content belongs to. There is one: the connection's plain stream of content.
  enum class ContentContext : std::uint8_t { defaultMessage };

  using StateUpdateHandler = std::move_only_function<void(const State&)>;
  using SendCompletion = std::move_only_function<void(std::optional<NSError>)>;
  using ReceiveCompletion = std::move_only_function<void(std::optional<Data>, ContentContext,
                                                         bool isComplete, std::optional<NSError>)>;

  /// A new connection of the installed platform, not yet started.
  [[nodiscard]] static std::shared_ptr<NWConnection> make(const NWEndpoint& endpoint,
                                                          const NWParameters& parameters);

  NWConnection() = default;
  NWConnection(const NWConnection&) = delete;
  NWConnection& operator=(const NWConnection&) = delete;
  virtual ~NWConnection() = default;

  /// Sets the one state handler; null clears it.
  virtual void setStateUpdateHandler(StateUpdateHandler handler) = 0;

  /// Begins: preparing, then ready; or waiting when the endpoint is refused, unreachable or does
  /// not resolve, failed when the machine lacks something (descriptors, the required interface).
  /// Several addresses of a name are tried in turn. Called once.
  virtual void start(std::shared_ptr<DispatchQueue> queue) = 0;

  /// Sends content. The completion runs once the bytes are accepted under a bound, which is the
  /// sender's back-pressure, or with an error. One send at a time. Over UDP each content is one
  /// datagram; `isComplete` ends a message, not the stream.
  virtual void send(Data content, ContentContext context, bool isComplete,
                    SendCompletion completion) = 0;

  /// Receives at least `minimum` and at most `maximum` bytes of the stream; over UDP one whole
  /// datagram, of whatever length. End of stream: no bytes, or the last ones, with is-complete set.
  /// One receive at a time.
  virtual void receive(std::size_t minimum, std::size_t maximum, ReceiveCompletion completion) = 0;

  /// Ends the connection. Idempotent.
  virtual void cancel() = 0;
};

}  // namespace tandor
