#pragma once

#include <expected>
#include <string>
#include <vector>

namespace tandor {

struct SubprocessResult {
  int status;          // as the program exited; 128 + signal when it was killed
  std::string output;  // standard output
  std::string errors;  // standard error
};

/// Runs a program, found in the system folders, with `input` on its standard input, and waits for
/// it. Fails with an error number when it cannot be run.
[[nodiscard]] std::expected<SubprocessResult, int> runProgram(std::vector<std::string> arguments,
                                                              const std::string& input);

}  // namespace tandor
