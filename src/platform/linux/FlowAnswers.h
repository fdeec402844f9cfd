#pragma once

#include <cstdint>

#include "platform/linux/FlowKey.h"

namespace tandor {

/// What the packet filter knows of flows that have their answer, so that it does not ask again. Of
/// TCP it finds everything out by itself. Any thread.
class FlowAnswers {
 public:
  FlowAnswers() = default;
  FlowAnswers(const FlowAnswers&) = delete;
  FlowAnswers& operator=(const FlowAnswers&) = delete;
  virtual ~FlowAnswers() = default;

  /// A UDP flow of the socket with this cookie is taken, or stays with the kernel; so many of its
  /// datagrams were asked about. After they have gone on, and again with each that follows them.
  virtual void setTaken(const FlowKey& flow, std::uint64_t cookie, std::uint64_t datagrams) = 0;
  virtual void setLeft(const FlowKey& flow, std::uint64_t cookie, std::uint64_t datagrams) = 0;
  /// Its addresses start afresh. Nothing there is no failure.
  virtual void forget(const FlowKey& flow) = 0;
};

}  // namespace tandor
