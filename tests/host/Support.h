#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/ChildProcess.h"
#include "platform/linux/FileDescriptor.h"

namespace tandor::host::test {

/// How long anything may take before a test gives up: far more than a loaded machine needs.
inline constexpr std::chrono::seconds patience{30};

[[nodiscard]] bool eventually(const std::function<bool()>& condition);

/// A folder that lasts as long as its owner.
class TemporaryFolder {
 public:
  TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder();

  [[nodiscard]] const std::filesystem::path& path() const noexcept { return path_; }
  [[nodiscard]] std::string operator/(std::string_view name) const { return path_ / name; }
  /// Writes a file, and the folders above it.
  void write(std::string_view name, std::string_view text, bool isProgram = false) const;
  void link(std::string_view name, const std::string& target) const;
  [[nodiscard]] bool isEmpty() const { return std::filesystem::is_empty(path_); }

 private:
  std::filesystem::path path_;
};

[[nodiscard]] std::string readFile(const std::filesystem::path& path);

/// A running `tandor`. Standard error goes to a file, standard output to a pipe, or to a terminal.
class Tandor {
 public:
  struct Settings {
    std::string program = TANDOR_PROGRAM;
    std::vector<std::pair<std::string, std::string>> environment;
    bool hasTerminal = false;
  };
  explicit Tandor(std::vector<std::string> arguments) : Tandor(std::move(arguments), Settings()) {}
  Tandor(std::vector<std::string> arguments, const Settings& settings);

  /// Reads standard output until it holds `text`; false when it ends before.
  [[nodiscard]] bool awaitOutput(std::string_view text);
  /// Reads to the end and waits; the exit status.
  int finish();
  void send(int signal) const { child_->send(signal); }
  [[nodiscard]] pid_t pid() const { return child_->pid(); }

  [[nodiscard]] const std::string& output() const noexcept { return output_; }
  [[nodiscard]] std::string errors() const { return readFile(folder_ / "errors"); }
  /// Standard output as JSON, one value a line.
  [[nodiscard]] std::vector<nlohmann::json> values() const;

 private:
  [[nodiscard]] bool readMore();

  TemporaryFolder folder_;
  FileDescriptor reading_;
  std::optional<ChildProcess> child_;
  std::string output_;
};

}  // namespace tandor::host::test
