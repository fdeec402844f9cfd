#pragma once

#include <expected>

#include "platform/linux/FlowAnswers.h"

namespace tandor {

/// Answers that the rules themselves write to the kernel's tracked connections: there is no more to
/// it than to forget.
class ConnectionTracking final : public FlowAnswers {
 public:
  void setTaken(const FlowKey& /*flow*/, std::uint64_t /*cookie*/,
                std::uint64_t /*datagrams*/) override {}
  void setLeft(const FlowKey& /*flow*/, std::uint64_t /*cookie*/,
               std::uint64_t /*datagrams*/) override {}
  void forget(const FlowKey& flow) override;

  /// Makes the kernel forget every connection that carries the mark of taken flows: with nobody to
  /// take them, their packets would vanish. Fails with an error number.
  [[nodiscard]] static std::expected<void, int> forgetTaken();
};

}  // namespace tandor
