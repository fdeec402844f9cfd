#pragma once

#include <string>
#include <vector>

namespace CLI {  // NOLINT(readability-identifier-naming): as the library has it
class App;
}

namespace tandor::host {

/// What a completion needs to know of an option, or of an argument without a name.
struct CompletableOption {
  enum class Value : std::uint8_t { none, text, choice, file, command };
  std::vector<std::string> names;  // with their dashes; empty for an argument
  std::string description;
  Value value = Value::none;
  std::vector<std::string> choices;
};

/// A command with its options, those of the commands above it included.
struct CompletableCommand {
  std::string name;
  std::string description;
  std::vector<CompletableOption> options;
  std::vector<CompletableCommand> commands;
};

/// Walks over a command line parser. Commands that its help hides are left out.
[[nodiscard]] CompletableCommand commandTree(const CLI::App& app);

/// A script for bash, zsh or fish; empty for another shell. Commands have no commands below them.
[[nodiscard]] std::string printCompletions(const CompletableCommand& tree,
                                           const std::string& shell);

}  // namespace tandor::host
