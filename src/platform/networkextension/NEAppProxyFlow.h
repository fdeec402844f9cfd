#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "platform/dispatch/EventLoop.h"
#include "platform/foundation/Data.h"
#include "platform/foundation/NSError.h"

namespace tandor {

/// A flow's endpoint as the platform reports it: host text and port text, neither checked.
struct NWHostEndpoint {
  std::string hostname;
  std::string port;

  [[nodiscard]] std::string description() const { return hostname + ":" + port; }
  friend bool operator==(const NWHostEndpoint&, const NWHostEndpoint&) = default;
};

/// A flow's endpoint of any other kind, such as a named service: nothing is known but its class.
struct NWOpaqueEndpoint {
  std::string className;
  friend bool operator==(const NWOpaqueEndpoint&, const NWOpaqueEndpoint&) = default;
};

using NWFlowEndpoint = std::variant<NWHostEndpoint, NWOpaqueEndpoint>;

/// The endpoint's class name, as error payloads carry it.
[[nodiscard]] std::string_view className(const NWFlowEndpoint& endpoint) noexcept;

struct NEFlowMetaData {
  /// Identifies the application whose process owns the flow.
  std::string sourceAppSigningIdentifier;
};

/// One new outgoing flow of an application, offered to the provider.
///
/// Completions never run inside the call that they answer; they run on a thread of the platform's
/// choosing, which for a flow with an affinity is its loop's. Operations may be called from any
/// thread. A flow that the last owner lets go is reset.
class NEAppProxyFlow {
 public:
  using Completion = std::move_only_function<void(std::optional<NSError>)>;

  NEAppProxyFlow() = default;
  NEAppProxyFlow(const NEAppProxyFlow&) = delete;
  NEAppProxyFlow& operator=(const NEAppProxyFlow&) = delete;
  virtual ~NEAppProxyFlow() = default;

  [[nodiscard]] virtual const NEFlowMetaData& metaData() const = 0;
  /// What pins work for this flow to the loop that serves it; null when nothing does.
  [[nodiscard]] virtual std::shared_ptr<LoopAffinity> affinity() { return nullptr; }

  /// Accepts the flow. Once, before any reading or writing.
  virtual void open(const std::optional<NWHostEndpoint>& localEndpoint, Completion completion) = 0;

  /// Ends one direction; what is pending in it completes. Without an error the stream ends in
  /// order, after everything accepted for writing was delivered; with one it is reset, so that the
  /// application sees a failure. Closing an unopened flow refuses it. Idempotent.
  virtual void closeReadWithError(const std::optional<NSError>& error) = 0;
  virtual void closeWriteWithError(const std::optional<NSError>& error) = 0;
};

/// Whoever relays a flow and may not read it for long.
class NEFlowDepartureObserver {
 public:
  NEFlowDepartureObserver() = default;
  NEFlowDepartureObserver(const NEFlowDepartureObserver&) = delete;
  NEFlowDepartureObserver& operator=(const NEFlowDepartureObserver&) = delete;
  virtual ~NEFlowDepartureObserver() = default;

  /// The application has gone, and nobody has read for so long. On a thread of the platform's
  /// choosing, which for a flow with an affinity is its loop's; once.
  virtual void applicationDidDepart(const std::optional<NSError>& error) = 0;
};

class NEAppProxyTCPFlow : public NEAppProxyFlow {
 public:
  using ReadCompletion = std::move_only_function<void(std::optional<Data>, std::optional<NSError>)>;

  /// From when the application has reset the flow or closed its socket, nobody could take an answer
  /// any more. A reader is told by its read. Where nobody reads for as long as the patience is
  /// (after a reset, which gives the bytes up, for a moment), the observer is told instead. A
  /// platform that cannot know calls nobody.
  virtual void setDepartureObserver(const std::weak_ptr<NEFlowDepartureObserver>& /*observer*/) {}
  virtual void setDeparturePatience(std::chrono::seconds /*patience*/) {}

  /// The destination that the application asked for.
  [[nodiscard]] virtual NWFlowEndpoint remoteEndpoint() const = 0;

  /// Reads what is there, at least one byte; no bytes is the end of the stream. The first read
  /// returns the application's first flight: one that begins like a TLS handshake record comes
  /// whole if it arrives within 300 ms of its first byte. One read at a time.
  virtual void readData(ReadCompletion completion) = 0;
  /// Writes `data`; completes once it is accepted under a bound. One write at a time.
  virtual void write(Data data, Completion completion) = 0;
};

class NEAppProxyUDPFlow : public NEAppProxyFlow {
 public:
  /// Datagrams with the endpoint that each was addressed to; no list is the end of the flow.
  using ReadDatagramsCompletion = std::move_only_function<void(
      std::optional<std::vector<Data>>, std::span<const NWHostEndpoint>, std::optional<NSError>)>;

  /// Reads the datagrams that are there, at least one, none empty. One read at a time.
  virtual void readDatagrams(ReadDatagramsCompletion completion) = 0;
  /// Sends each datagram to the application as coming from the endpoint beside it.
  virtual void writeDatagrams(std::span<const Data> datagrams,
                              std::span<const NWHostEndpoint> sentBy, Completion completion) = 0;
};

}  // namespace tandor
