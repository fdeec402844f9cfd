#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "platform/foundation/Description.h"
#include "platform/network/NWConnection.h"
#include "support/Journal.h"
#include "support/Pending.h"

namespace tandor::test {

/// An outbound connection that does nothing by itself: it notes each call as "NAME: CALL", and the
/// test enters states and completes what is under way, in any order, also late: what was under way
/// at a cancel stays so. Handlers and completions run on the connection's queue, within the call
/// that causes them. Those calls return false when there was nothing to run. Any thread.
class ScriptedConnection final : public NWConnection {
 public:
  ScriptedConnection(Journal& journal, std::string name)
      : journal_(journal), name_(std::move(name)) {}

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

  [[nodiscard]] bool isCancelled() const noexcept { return isCancelled_; }
  /// What the last send was to send.
  [[nodiscard]] Data lastSent() const {
    const std::scoped_lock lock(mutex_);
    return lastSent_;
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
    const std::scoped_lock lock(mutex_);
    lastSent_ = std::move(content);
  }
  void receive(std::size_t minimum, std::size_t maximum, ReceiveCompletion completion) override {
    note("receive " + std::to_string(minimum) + ".." + std::to_string(maximum));
    receiving_.put(std::move(completion));
  }
  void cancel() override {
    note("cancel");
    isCancelled_ = true;
  }

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
  mutable std::mutex mutex_;
  std::shared_ptr<StateUpdateHandler> handler_;  // guarded by mutex_
  std::shared_ptr<DispatchQueue> queue_;         // guarded by mutex_
  Data lastSent_;                                // guarded by mutex_
  Pending<SendCompletion> sending_;
  Pending<ReceiveCompletion> receiving_;
  std::atomic<bool> isCancelled_{false};
};

}  // namespace tandor::test
