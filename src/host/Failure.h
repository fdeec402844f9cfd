#pragma once

#include <expected>
#include <string>
#include <utility>

namespace tandor::host {

inline constexpr int exitDone = 0;
inline constexpr int exitFailed = 1;
inline constexpr int exitWrongUsage = 2;

/// Why a command cannot do what it was asked for, and what its user can do next.
struct Failure {
  std::string message;
  std::string advice;
  int exitCode = exitFailed;
};

[[nodiscard]] inline std::unexpected<Failure> fail(std::string message, std::string advice) {
  return std::unexpected(Failure{std::move(message), std::move(advice), exitFailed});
}

/// A command's outcome: its exit code, or a failure that is still to be shown.
using Outcome = std::expected<int, Failure>;

/// The command line or the configuration asks for something that makes no sense.
[[nodiscard]] inline std::unexpected<Failure> wrongUsage(std::string message, std::string advice) {
  return std::unexpected(Failure{std::move(message), std::move(advice), exitWrongUsage});
}

}  // namespace tandor::host
