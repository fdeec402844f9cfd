#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "host/Machine.h"

namespace tandor::host {

/// What one check has found, and what to do about it.
struct Finding {
  enum class Result : std::uint8_t { good, unknown, warning, failure };
  std::string check;
  Result result;
  std::string text;
  std::string advice;  // empty when there is nothing to do
};
inline constexpr std::string_view resultNames[] = {"ok", "unknown", "warning", "failed"};

/// Each looks and changes nothing.
[[nodiscard]] Finding checkPrivileges(const Machine& machine);
[[nodiscard]] Finding checkPacketFilterTool(const Machine& machine);
[[nodiscard]] std::vector<Finding> checkKernelFeatures(const Machine& machine);
/// `isProviderRunning`: the queue is taken as it should be.
[[nodiscard]] Finding checkQueue(const Machine& machine, bool isProviderRunning);
[[nodiscard]] Finding checkDefaultRoute(const Machine& machine);
[[nodiscard]] Finding checkDirectInterface(const Machine& machine);
[[nodiscard]] Finding checkReversePathFilter(const Machine& machine);
/// Other software's packet marks in the bits that flows are marked in.
[[nodiscard]] Finding checkMarks(const Machine& machine);

}  // namespace tandor::host
