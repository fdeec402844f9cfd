#include <algorithm>

#include "connection/TandorProxyConnection.h"
#include "support/Log.h"

namespace tandor {

void TandorProxyConnection::startRelay(std::optional<Data> firstData, const Data& behind) {
  copyFlowDataToNWConnection(std::move(firstData));
  if (behind.isEmpty()) {
    copyNWConnectionDataToFlow();
  } else {
    received(behind, /*isComplete=*/false, std::nullopt);
  }
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

void TandorProxyConnection::copyNWConnectionDataToFlow() {
  if (connection_ == nullptr) return;
  connection_->receive(1, maximumReceiveLength,
                       [weakSelf = weak_from_this(), connection = connection_.get()](
                           std::optional<Data> data, NWConnection::ContentContext /*context*/,
                           bool isComplete, const std::optional<NSError>& error) {
                         const auto self = weakSelf.lock();
                         if (self != nullptr && self->isCurrent(connection))
                           self->received(std::move(data), isComplete, error);
                       });
}

void TandorProxyConnection::received(std::optional<Data> data, bool isComplete,
                                     const std::optional<NSError>& error) {
  if (!data) {
    if (isDebug_) {
      log("nw connection receive failed: isComplete: " + description(isComplete) + ", error:",
          error ? error->description() : "null");
    }
    endWithError(error);
  } else {
    writeFlowData(std::move(*data), isComplete);
  }
}

void TandorProxyConnection::writeFlowData(Data data, bool isComplete) {
  auto completion = [self = shared_from_this(), isComplete](std::optional<NSError> error) mutable {
    DispatchQueue& queue = *self->nwQueue_;
    queue.carry([self = std::move(self), isComplete, error = std::move(error)] {
      self->flowWriteCompleted(isComplete, error);
    });
  };
  if (const auto* tcp = network_.tcp()) {
    tcp->sourceFlow->write(std::move(data), std::move(completion));
  } else if (const auto* udp = network_.udp()) {
    // A flow with any other kind of endpoint never got as far as a connection.
    const auto& sender = std::get<NWHostEndpoint>(udp->remoteEndpoint);
    udp->sourceFlow->writeDatagrams({&data, 1}, {&sender, 1}, std::move(completion));
  }
}

void TandorProxyConnection::flowWriteCompleted(bool isComplete,
                                               const std::optional<NSError>& error) {
  if (error) {
    log("write flow data failed: %@", *error);
    endWithError(error);
  } else if (isComplete) {
    log("nw connection receive complete");
    endWithError(std::nullopt);
  } else {
    copyNWConnectionDataToFlow();
  }
}

}  // namespace tandor
