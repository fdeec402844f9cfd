#pragma once

#include <atomic>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/foundation/Description.h"
#include "platform/networkextension/NEAppProxyFlow.h"
#include "support/Journal.h"
#include "support/Pending.h"

namespace tandor::test {

/// What both kinds of scripted flow share. A scripted flow does nothing by itself: it notes each
/// call as "NAME: CALL", and the test completes what is under way, on whatever thread it calls; a
/// completing call returns false when there was nothing to complete. Any thread.
template <typename Flow>
class ScriptedFlow : public Flow {
 public:
  using Completion = NEAppProxyFlow::Completion;

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
  void open(const std::optional<NWHostEndpoint>& localEndpoint, Completion completion) override {
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

  Pending<typename Flow::ReadCompletion> reading_;
  Pending<Completion> writing_;

 private:
  Journal& journal_;
  const std::string name_;
  const NEFlowMetaData metaData_;
  Pending<Completion> opening_;
  std::atomic<bool> isReadClosed_{false};
  std::atomic<bool> isWriteClosed_{false};
};

class ScriptedTCPFlow final : public ScriptedFlow<NEAppProxyTCPFlow> {
 public:
  ScriptedTCPFlow(Journal& journal, std::string name, std::string app, NWFlowEndpoint endpoint)
      : ScriptedFlow(journal, std::move(name), std::move(app)),
        remoteEndpoint_(std::move(endpoint)) {}

  bool completeRead(const std::optional<Data>& data,
                    const std::optional<NSError>& error = std::nullopt) {
    return reading_.complete(data, error);
  }

  [[nodiscard]] const NWFlowEndpoint& remoteEndpoint() const override { return remoteEndpoint_; }
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

/// Gives the base the one name under which both kinds have a completion of their reads.
class UDPFlowWithReads : public NEAppProxyUDPFlow {
 public:
  using ReadCompletion = ReadDatagramsCompletion;
};

class ScriptedUDPFlow final : public ScriptedFlow<UDPFlowWithReads> {
 public:
  using ScriptedFlow::ScriptedFlow;

  bool completeRead(const std::optional<std::vector<Data>>& datagrams,
                    const std::optional<NSError>& error = std::nullopt) {
    const std::vector<NWHostEndpoint> addressedTo(datagrams ? datagrams->size() : 0);
    return reading_.complete(datagrams, addressedTo, error);
  }

  void readDatagrams(ReadDatagramsCompletion completion) override {
    note("read");
    reading_.put(std::move(completion));
  }
  void writeDatagrams(std::span<const Data> datagrams, std::span<const NWHostEndpoint> sentBy,
                      Completion completion) override {
    EXPECT_EQ(datagrams.size(), sentBy.size());
    std::string call = "write";
    for (std::size_t index = 0; index < datagrams.size(); ++index)
      call += " " + show(datagrams[index]) + " from " + sentBy[index].description();
    note(call);
    writing_.put(std::move(completion));
  }
};

}  // namespace tandor::test
