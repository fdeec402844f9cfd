#pragma once

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Backend.h"
#include "platform/foundation/Description.h"
#include "platform/foundation/NSLog.h"
#include "platform/network/NWConnection.h"
#include "platform/network/NWPathMonitor.h"
#include "platform/networkextension/NEAppProxyFlow.h"

// The platform, scripted. Its objects do nothing by themselves: they note each call as "NAME: CALL"
// in the journal, and the test completes what is under way, in any order, with or without an error,
// also late: what was under way at a close or a cancel stays so. A completing call returns false
// when nothing was under way. Any thread may use everything.

namespace tandor::test {

using Lines = std::vector<std::string>;

/// What happened, in order: every log line, as "log: LINE", and what the scripted objects note, so
/// that a test sees lines and calls in one sequence. One lives at a time; any thread may log and
/// note.
class Journal {
 public:
  Journal() {
    current = this;
    setNSLogSink([](std::string_view line) { current->note("log: " + std::string(line)); });
  }
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;
  ~Journal() { setNSLogSink(nullptr); }

  void note(std::string entry) {
    const std::scoped_lock lock(mutex_);
    entries_.push_back(std::move(entry));
  }

  /// The entries since the last call.
  [[nodiscard]] Lines take() {
    const std::scoped_lock lock(mutex_);
    return std::exchange(entries_, {});
  }

 private:
  static inline Journal* current = nullptr;
  std::mutex mutex_;
  Lines entries_;  // guarded by mutex_
};

/// Data as the journal shows it: short plain text as it is, anything else by its length and hash.
[[nodiscard]] inline std::string show(const Data& data) {
  constexpr std::size_t longestText = 200;
  const std::string text(data.characters());
  const bool isPlain = std::ranges::all_of(text, [](char character) {
    return (character >= ' ' && character <= '~') || character == '\r' || character == '\n';
  });
  if (isPlain && text.size() <= longestText) return "'" + text + "'";
  return std::to_string(text.size()) + " bytes #" + std::to_string(std::hash<std::string>()(text));
}

/// The completion of an operation that may be under way once at a time.
template <typename Completion>
class Pending {
 public:
  void put(Completion completion) {
    const std::scoped_lock lock(mutex_);
    EXPECT_FALSE(completion_) << "begun again before it completed";
    completion_ = std::move(completion);
  }
  /// Null when nothing is under way.
  [[nodiscard]] Completion take() {
    const std::scoped_lock lock(mutex_);
    return std::exchange(completion_, nullptr);
  }
  template <typename... Arguments>
  bool complete(Arguments&&... arguments) {
    Completion completion = take();
    if (completion) completion(std::forward<Arguments>(arguments)...);
    return completion != nullptr;
  }

 private:
  std::mutex mutex_;
  Completion completion_;  // guarded by mutex_
};

/// Handlers and completions run on the connection's queue, within the call that causes them.
class ScriptedConnection final : public NWConnection {
 public:
  ScriptedConnection(Journal& journal, std::string name)
      : journal_(journal), name_(std::move(name)) {}

  /// Returns false when no handler is set.
  bool enter(State::Kind kind, const std::optional<NSError>& error = std::nullopt) {
    return onQueue([&] {
      std::unique_lock lock(mutex_);
      const auto handler = handler_;
      lock.unlock();
      if (handler != nullptr) (*handler)(State{kind, error});
      return handler != nullptr;
    });
  }
  bool completeSend(const std::optional<NSError>& error = std::nullopt) {
    return onQueue([&] { return sending_.complete(error); });
  }
  bool completeReceive(const std::optional<Data>& bytes, bool isComplete = false,
                       const std::optional<NSError>& error = std::nullopt) {
    return onQueue([&] {
      return receiving_.complete(bytes, ContentContext::defaultMessage, isComplete, error);
    });
  }
  /// Forgets what is under way, and whatever it owns with it.
  void abandon() {
    static_cast<void>(sending_.take());
    static_cast<void>(receiving_.take());
  }

  void setStateUpdateHandler(StateUpdateHandler handler) override {
    note(handler ? "handler" : "handler cleared");
    auto shared = handler ? std::make_shared<StateUpdateHandler>(std::move(handler)) : nullptr;
    const std::scoped_lock lock(mutex_);
    handler_.swap(shared);
  }
  void start(std::shared_ptr<DispatchQueue> queue) override {
    note("start on " + std::string(queue->label()));
    const std::scoped_lock lock(mutex_);
    queue_ = std::move(queue);
  }
  void send(Data content, ContentContext /*context*/, bool isComplete,
            SendCompletion completion) override {
    note("send " + show(content) + (isComplete ? "" : " incomplete"));
    sending_.put(std::move(completion));
  }
  void receive(std::size_t minimum, std::size_t maximum, ReceiveCompletion completion) override {
    note("receive " + std::to_string(minimum) + ".." + std::to_string(maximum));
    receiving_.put(std::move(completion));
  }
  void cancel() override { note("cancel"); }

 private:
  void note(const std::string& call) { journal_.note(name_ + ": " + call); }
  bool onQueue(auto function) {
    std::unique_lock lock(mutex_);
    const auto queue = queue_;
    lock.unlock();
    return queue != nullptr && queue->sync(function);
  }

  Journal& journal_;
  const std::string name_;
  std::mutex mutex_;
  std::shared_ptr<StateUpdateHandler> handler_;  // guarded by mutex_
  std::shared_ptr<DispatchQueue> queue_;         // guarded by mutex_
  Pending<SendCompletion> sending_;
  Pending<ReceiveCompletion> receiving_;
};

/// What both kinds of scripted flow share. Completions run on the thread that causes them.
template <typename Flow, typename ReadCompletion>
class ScriptedFlow : public Flow {
 public:
  ScriptedFlow(Journal& journal, std::string name, std::string app)
      : journal_(journal), name_(std::move(name)), metaData_{std::move(app)} {}

  bool completeOpen(const std::optional<NSError>& error = std::nullopt) {
    return opening_.complete(error);
  }
  bool completeWrite(const std::optional<NSError>& error = std::nullopt) {
    return writing_.complete(error);
  }
  /// In both directions.
  [[nodiscard]] bool isClosed() const noexcept { return isReadClosed_ && isWriteClosed_; }
  /// Forgets what is under way, and whatever it owns with it.
  void abandon() {
    static_cast<void>(opening_.take());
    static_cast<void>(reading_.take());
    static_cast<void>(writing_.take());
  }

  [[nodiscard]] const NEFlowMetaData& metaData() const override { return metaData_; }
  void open(const std::optional<NWHostEndpoint>& localEndpoint,
            NEAppProxyFlow::Completion completion) override {
    note("open" + (localEndpoint ? " from " + localEndpoint->description() : ""));
    opening_.put(std::move(completion));
  }
  void closeReadWithError(const std::optional<NSError>& error) override {
    note("closeRead " + description(error));
    isReadClosed_ = true;
  }
  void closeWriteWithError(const std::optional<NSError>& error) override {
    note("closeWrite " + description(error));
    isWriteClosed_ = true;
  }

 protected:
  void note(const std::string& call) { journal_.note(name_ + ": " + call); }

  Pending<ReadCompletion> reading_;
  Pending<NEAppProxyFlow::Completion> writing_;

 private:
  Journal& journal_;
  const std::string name_;
  const NEFlowMetaData metaData_;
  Pending<NEAppProxyFlow::Completion> opening_;
  std::atomic<bool> isReadClosed_{false};
  std::atomic<bool> isWriteClosed_{false};
};

class ScriptedTCPFlow final
    : public ScriptedFlow<NEAppProxyTCPFlow, NEAppProxyTCPFlow::ReadCompletion> {
 public:
  ScriptedTCPFlow(Journal& journal, std::string name, std::string app, NWFlowEndpoint endpoint)
      : ScriptedFlow(journal, std::move(name), std::move(app)),
        remoteEndpoint_(std::move(endpoint)) {}

  bool completeRead(const std::optional<Data>& data,
                    const std::optional<NSError>& error = std::nullopt) {
    return reading_.complete(data, error);
  }

  [[nodiscard]] NWFlowEndpoint remoteEndpoint() const override { return remoteEndpoint_; }
  void readData(ReadCompletion completion) override {
    note("read");
    reading_.put(std::move(completion));
  }
  void write(Data data, Completion completion) override {
    note("write " + show(data));
    writing_.put(std::move(completion));
  }

 private:
  const NWFlowEndpoint remoteEndpoint_;
};

class ScriptedUDPFlow final
    : public ScriptedFlow<NEAppProxyUDPFlow, NEAppProxyUDPFlow::ReadDatagramsCompletion> {
 public:
  using ScriptedFlow::ScriptedFlow;

  void readDatagrams(ReadDatagramsCompletion completion) override {
    reading_.put(std::move(completion));
  }
  void writeDatagrams(std::span<const Data> /*datagrams*/,
                      std::span<const NWHostEndpoint> /*sentBy*/, Completion completion) override {
    writing_.put(std::move(completion));
  }
};

/// In force for as long as it lives. It names its connections out1, out2, ... and its flows flow1,
/// flow2, ...; it keeps them all, and makes them forget what is under way when it goes.
class ScriptedBackend final : public PlatformBackend {
 public:
  explicit ScriptedBackend(Journal& journal) : journal_(journal), earlier_(install(this)) {}
  ScriptedBackend(const ScriptedBackend&) = delete;
  ScriptedBackend& operator=(const ScriptedBackend&) = delete;
  ~ScriptedBackend() override {
    for (const auto& connection : connections_) connection->abandon();
    for (const auto& flow : tcpFlows_) flow->abandon();
    for (const auto& flow : udpFlows_) flow->abandon();
    install(earlier_);
  }

  /// The connection made as the `number`-th, counted from 1.
  [[nodiscard]] ScriptedConnection& out(std::size_t number) {
    const std::scoped_lock lock(mutex_);
    return *connections_.at(number - 1);
  }
  [[nodiscard]] std::size_t connectionCount() {
    const std::scoped_lock lock(mutex_);
    return connections_.size();
  }
  [[nodiscard]] std::shared_ptr<ScriptedTCPFlow> tcpFlow(NWFlowEndpoint endpoint,
                                                         std::string app = "app") {
    const std::scoped_lock lock(mutex_);
    return tcpFlows_.emplace_back(std::make_shared<ScriptedTCPFlow>(
        journal_, nextFlowName(), std::move(app), std::move(endpoint)));
  }
  [[nodiscard]] std::shared_ptr<ScriptedUDPFlow> udpFlow(std::string app = "app") {
    const std::scoped_lock lock(mutex_);
    return udpFlows_.emplace_back(
        std::make_shared<ScriptedUDPFlow>(journal_, nextFlowName(), std::move(app)));
  }
  /// Reports a path to whoever watched last, even when that one is gone. One call at a time.
  void reportPath(std::vector<NWInterface> interfaces) {
    (*pathHandler_)(NWPath{std::move(interfaces)});
  }

  [[nodiscard]] std::shared_ptr<NWConnection> makeConnection(
      const NWEndpoint& endpoint, const NWParameters& /*parameters*/) override {
    const std::scoped_lock lock(mutex_);
    const std::string name = "out" + std::to_string(connections_.size() + 1);
    journal_.note(name + ": to " + endpoint.description());
    return connections_.emplace_back(std::make_shared<ScriptedConnection>(journal_, name));
  }
  [[nodiscard]] std::unique_ptr<NWPathMonitor> makePathMonitor() override {
    return std::make_unique<PathMonitor>(*this);
  }

 private:
  class PathMonitor final : public NWPathMonitor {
   public:
    explicit PathMonitor(ScriptedBackend& backend) : backend_(backend) {}
    void start(GlobalQueue& /*queue*/) override {
      backend_.journal_.note("path monitor: start");
      backend_.pathHandler_ = pathUpdateHandler_;
    }

   private:
    ScriptedBackend& backend_;
  };

  std::string nextFlowName() {
    return "flow" + std::to_string(tcpFlows_.size() + udpFlows_.size() + 1);
  }

  Journal& journal_;
  PlatformBackend* const earlier_;
  std::shared_ptr<NWPathMonitor::PathUpdateHandler> pathHandler_;
  std::mutex mutex_;
  std::vector<std::shared_ptr<ScriptedConnection>> connections_;  // guarded by mutex_
  std::vector<std::shared_ptr<ScriptedTCPFlow>> tcpFlows_;        // guarded by mutex_
  std::vector<std::shared_ptr<ScriptedUDPFlow>> udpFlows_;        // guarded by mutex_
};

/// Text as data.
[[nodiscard]] inline Data bytes(std::string_view text) {
  return Data::copying(text);
}

}  // namespace tandor::test
