#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "load/Client.h"
#include "load/Protocol.h"
#include "platform/linux/FileDescriptor.h"

namespace tandor::load {

/// What all flows of a client have in common.
class FlowMaker {
 public:
  FlowMaker(const ClientOptions& options, const Command& command);
  /// A socket that connects to the next destination; it does not wait for that.
  [[nodiscard]] FileDescriptor connecting();
  /// A flow whose hello is sent; it waits, and so do its sends and receives.
  [[nodiscard]] FileDescriptor open();
  [[nodiscard]] bool speaksConnect() const { return !request_.empty(); }
  [[nodiscard]] const std::string& hello() const { return hello_; }
  [[nodiscard]] const std::string& request() const { return request_; }

 private:
  [[nodiscard]] const sockaddr_in& nextDestination();

  const ClientOptions& options_;
  const std::string hello_;
  const std::string request_;
  std::size_t turn_ = 0;
};

/// One flow that does not wait: connects, asks the proxy if it is to, sends its hello.
class Flow {
 public:
  enum class Stage : std::uint8_t { connecting, asking, open, failed };
  /// Watched by `epoll`, edge-triggered in both directions, with itself as data.
  Flow(FlowMaker& maker, int epoll);
  /// Goes as far as it can; call it at every event until the flow is open.
  Stage advance();
  [[nodiscard]] int socket() const { return socket_.get(); }
  [[nodiscard]] Stage stage() const { return stage_; }

 private:
  FlowMaker& maker_;
  FileDescriptor socket_;
  Stage stage_ = Stage::connecting;
};

}  // namespace tandor::load
