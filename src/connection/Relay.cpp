#include <algorithm>

#include "connection/TandorProxyConnection.h"
#include "support/Log.h"

namespace tandor {

void TandorProxyConnection::startRelay(std::optional<Data> firstData, const Data& behind) {
  if (const auto* tcp = network_.tcp())
    tcp->sourceFlow->setDeparturePatience(departedRelayPatience);
  copyFlowDataToNWConnection(std::move(firstData));
  copyNWConnectionDataToFlow(behind);
}

// From the flow to the outbound connection: read, send, read, ... with one chunk in flight.

void TandorProxyConnection::copyFlowDataToNWConnection(std::optional<Data> firstData) {
  if (firstData) {
    sendChunk(std::move(*firstData));
  } else {
    readFlowData();
  }
}

void TandorProxyConnection::readFlowData() {
  if (const auto* tcp = network_.tcp()) {
    tcp->sourceFlow->readData([self = shared_from_this()](std::optional<Data> data,
                                                          std::optional<NSError> error) mutable {
      DispatchQueue& queue = *self->nwQueue_;
      queue.carry(
          [self = std::move(self), data = std::move(data), error = std::move(error)]() mutable {
            self->flowReadCompleted(std::move(data), error);
          });
    });
    return;
  }
  network_.udp()->sourceFlow->readDatagrams(
      [self = shared_from_this()](std::optional<std::vector<Data>> datagrams,
                                  std::span<const NWHostEndpoint> /*addressedTo*/,
                                  std::optional<NSError> error) mutable {
        DispatchQueue& queue = *self->nwQueue_;
        queue.carry([self = std::move(self), datagrams = std::move(datagrams),
                     error = std::move(error)]() mutable {
          if (error || !datagrams || datagrams->empty()) {
            self->flowReadCompleted(std::nullopt, error);
            return;
          }
          // All are sent, in order, before the next read is issued: one read is outstanding at
          // most.
          std::ranges::reverse(*datagrams);
          self->datagramsToSend_ = std::move(*datagrams);
          self->sendCompleted(std::nullopt);
        });
      });
}

void TandorProxyConnection::flowReadCompleted(std::optional<Data> data,
                                              const std::optional<NSError>& error) {
  // An error, no buffer and an empty one are all the end; bytes beside an error are dropped.
  if (error || !data || data->isEmpty()) {
    endWithError(error);
    return;
  }
  sendChunk(std::move(*data));
}

void TandorProxyConnection::sendChunk(Data chunk) {
  if (connection_ == nullptr) return;
  connection_->send(std::move(chunk), NWConnection::ContentContext::defaultMessage,
                    /*isComplete=*/true,
                    [self = shared_from_this(),
                     connection = connection_.get()](const std::optional<NSError>& error) {
                      if (self->isCurrent(connection)) self->sendCompleted(error);
                    });
}

void TandorProxyConnection::sendCompleted(const std::optional<NSError>& error) {
  if (error) {
    log("connection send failed: " + error->description());
    endWithError(error);
  } else if (!datagramsToSend_.empty()) {
    Data next = std::move(datagramsToSend_.back());
    datagramsToSend_.pop_back();
    flowReadCompleted(std::move(next), std::nullopt);
  } else {
    readFlowData();
  }
}

// From the outbound connection to the flow: receive, write, receive, ... with one chunk in flight.

/// What the steps of this loop hand on from one to the next: chunks are small and many, and a new
/// reference for each would cost more than all the rest.
struct TandorProxyConnection::Download {
  std::shared_ptr<TandorProxyConnection> self;
  NWConnection* connection;
  bool isLastChunk = false;  // nothing follows the chunk that is being written

  [[nodiscard]] bool isCurrent() const { return self->isCurrent(connection); }
};

void TandorProxyConnection::copyNWConnectionDataToFlow(const Data& behind) {
  if (connection_ == nullptr) return;
  auto download = std::make_unique<Download>(shared_from_this(), connection_.get());
  if (behind.isEmpty()) {
    receiveChunk(std::move(download));
  } else {
    writeFlowData(std::move(download), behind);
  }
}

void TandorProxyConnection::receiveChunk(std::unique_ptr<Download> download) {
  if (!download->isCurrent()) return;
  NWConnection& connection = *download->connection;
  connection.receive(1, maximumReceiveLength,
                     [download = std::move(download)](
                         std::optional<Data> data, NWConnection::ContentContext /*context*/,
                         bool isComplete, const std::optional<NSError>& error) mutable {
                       if (!download->isCurrent()) return;
                       download->isLastChunk = isComplete;
                       if (data) {
                         writeFlowData(std::move(download), std::move(*data));
                       } else {
                         download->self->receiveFailed(isComplete, error);
                       }
                     });
}

void TandorProxyConnection::receiveFailed(bool isComplete, const std::optional<NSError>& error) {
  if (isDebug_) {
    log("nw connection receive failed: isComplete: " + description(isComplete) + ", error:",
        error ? error->description() : "null");
  }
  endWithError(error);
}

void TandorProxyConnection::writeFlowData(std::unique_ptr<Download> download, Data data) {
  const ConnectionNetwork& network = download->self->network_;
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): the function owns what it captures
  auto completion = [download = std::move(download)](std::optional<NSError> error) mutable {
    DispatchQueue& queue = *download->self->nwQueue_;
    queue.carry([download = std::move(download), error = std::move(error)]() mutable {
      flowWriteCompleted(std::move(download), error);
    });
  };
  if (const auto* tcp = network.tcp()) {
    tcp->sourceFlow->write(std::move(data), std::move(completion));
  } else if (const auto* udp = network.udp()) {
    // A flow with any other kind of endpoint never got as far as a connection.
    const auto& sender = std::get<NWHostEndpoint>(udp->remoteEndpoint);
    udp->sourceFlow->writeDatagrams({&data, 1}, {&sender, 1}, std::move(completion));
  }
}

void TandorProxyConnection::flowWriteCompleted(std::unique_ptr<Download> download,
                                               const std::optional<NSError>& error) {
  if (error) {
    log("write flow data failed: %@", *error);
    download->self->endWithError(error);
  } else if (download->isLastChunk) {
    log("nw connection receive complete");
    download->self->endWithError(std::nullopt);
  } else {
    receiveChunk(std::move(download));
  }
}

}  // namespace tandor
