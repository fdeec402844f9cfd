#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <net/if.h>
#include <string>
#include <sys/types.h>

#include "platform/linux/EpollLoop.h"
#include "platform/linux/FlowKey.h"
#include "platform/linux/SocketAddress.h"
#include "platform/networkextension/NEAppProxyFlow.h"

namespace tandor {

class FlowRegistry;

/// What is known of a flow. Nothing of it is put into words before somebody wants to see them.
struct FlowInfo {
  std::uint64_t id = 0;
  FlowKey key;  // its destination is what the application asked for
  pid_t pid = 0;
  std::shared_ptr<const NEFlowMetaData> metaData;  // null when the application is not known
  SocketAddress outbound;  // where the bytes go, or are to go; empty until that is tried
  std::array<char, IFNAMSIZ> interface{};  // the outbound connection's; empty when bound to none
  std::uint64_t bytesIn = 0;
  std::uint64_t bytesOut = 0;
  std::chrono::system_clock::time_point since;
};

/// What every flow of an application has, of either protocol: its origin, its place in the
/// registry, its loop. A flow is announced when its first packet is held, and attached to a loop
/// when its socket is there; until then only the thread that offers it touches it.
class InterceptedFlow : public EpollLoop::Resident {
 public:
  /// Pins the flow's queue to its loop, and knows the flow while it lives. The queue lives longer:
  /// until the outbound connection has delivered its last bytes.
  class Affinity final : public LoopAffinity {
   public:
    explicit Affinity(const std::shared_ptr<InterceptedFlow>& flow) noexcept
        : loop_(*flow->residence()), flow_(flow) {}
    [[nodiscard]] EventLoop& loop() const noexcept override { return loop_; }
    /// Null when the flow has ended.
    [[nodiscard]] std::shared_ptr<InterceptedFlow> flow() const noexcept { return flow_.lock(); }

   private:
    EpollLoop& loop_;
    const std::weak_ptr<InterceptedFlow> flow_;
  };

  /// The connection that carries the flow's bytes, for what the provider cannot hand on.
  class Carrier {
   public:
    Carrier() = default;
    Carrier(const Carrier&) = delete;
    Carrier& operator=(const Carrier&) = delete;
    /// Sends an empty datagram, after whatever was sent before. On the flow's loop.
    virtual void sendEmptyDatagram() = 0;

   protected:
    ~Carrier() = default;
  };

  struct Origin {
    FlowKey key;
    pid_t pid = 0;
    std::shared_ptr<const NEFlowMetaData> metaData;
  };

  /// `registry`, if given, outlives the flow.
  InterceptedFlow(Origin origin, FlowRegistry* registry);
  ~InterceptedFlow() override;
  InterceptedFlow(const InterceptedFlow&) = delete;
  InterceptedFlow& operator=(const InterceptedFlow&) = delete;

  [[nodiscard]] const FlowKey& key() const noexcept { return origin_.key; }
  [[nodiscard]] pid_t pid() const noexcept { return origin_.pid; }

  /// Tells where the flow's bytes go, and the interface that they are bound to. Any thread.
  void setOutbound(const SocketAddress& address, const std::string& interface);
  /// Tells what carries the flow's bytes from now on. On the loop.
  virtual void setCarrier(const std::weak_ptr<Carrier>& /*carrier*/) {}
  /// Any thread.
  [[nodiscard]] FlowInfo info() const;
  /// The way to the application is about to go: a closed flow that has delivered everything ends
  /// now; when it is late, any flow does, and its application sees that something is missing. On
  /// the loop.
  virtual void letGo(bool /*isLate*/) {}
  /// Whether the application has reset the flow, or has gone and left bytes behind that nobody
  /// took: where they went must not look complete. On the loop.
  [[nodiscard]] virtual bool isGivenUp() const noexcept { return false; }

 protected:
  [[nodiscard]] const NEFlowMetaData& originMetaData() const noexcept { return *origin_.metaData; }
  [[nodiscard]] std::shared_ptr<LoopAffinity> makeAffinity() const;
  /// Enters the flow into the registry: it is live. Once, on the loop.
  void enlist();
  /// Bytes that the application sent and received so far. Any thread.
  [[nodiscard]] virtual std::uint64_t bytesOut() const noexcept = 0;
  [[nodiscard]] virtual std::uint64_t bytesIn() const noexcept = 0;
  /// Ends the flow for who counts and lists open ones; its last bytes may still be on their way.
  void markClosed() noexcept;
  /// Ends the listing; by the destructor of the derived class, whose counts still stand.
  void delist() noexcept;

 private:
  friend class FlowRegistry;

  const Origin origin_;
  FlowRegistry* const registry_;
  std::chrono::system_clock::time_point since_;
  std::uint64_t id_ = 0;

  // Guarded by the registry.
  SocketAddress outbound_;
  std::array<char, IFNAMSIZ> interface_{};
  InterceptedFlow* next_ = nullptr;
  InterceptedFlow* previous_ = nullptr;
  bool isListed_ = false;
  bool isOpen_ = false;
};

}  // namespace tandor
