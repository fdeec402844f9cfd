#include "host/ProviderProcess.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <system_error>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

namespace tandor::host {
namespace {

using namespace std::chrono_literals;

constexpr auto endLimit = 10s;
constexpr auto killLimit = 5s;
constexpr auto cleanUpLimit = 10s;
constexpr std::size_t mostLines = 5;

std::string howItEnded(int status) {
  constexpr int killedBySignal = 128;
  if (status <= killedBySignal) return fmt::format("with status {}", status);
  return fmt::format("by signal {} ({})", status - killedBySignal,
                     ::strsignal(status - killedBySignal));
}

}  // namespace

std::optional<std::string> findProviderProgram() {
  constexpr std::string_view name = "tandor-provider";
  const std::filesystem::path folder = std::filesystem::path(ownExecutable()).parent_path();
  for (const char* place : {".", "../sbin", "../libexec/tandor"}) {
    auto candidate = (folder / place / name).lexically_normal();
    if (::access(candidate.c_str(), X_OK) == 0) return candidate.string();
  }
  return findProgram(std::string(name));
}

std::expected<std::unique_ptr<ProviderProcess>, Failure> ProviderProcess::start(
    EventLoop& loop, const std::string& controlPath, bool isLogShown) {
  const auto program = findProviderProgram();
  if (!program) {
    return fail("tandor-provider is not installed",
                "install the package whole, or put tandor-provider beside this program");
  }
  auto log = makePipe();
  if (!log) return fail("cannot make a pipe", "end other programs; too many files are open");
  ::fcntl(log->reading.get(), F_SETFL, O_NONBLOCK);
  auto child = ChildProcess::start({*program, "--control", controlPath},
                                   {.output = log->writing.get(), .errors = log->writing.get()});
  if (!child) {
    return fail(
        fmt::format("cannot run {}: {}", *program, std::generic_category().message(child.error())),
        "check that the file is the program that was installed");
  }
  return std::unique_ptr<ProviderProcess>(new ProviderProcess(
      loop, std::move(*child), std::move(log->reading),  // NOLINT(*-owning-memory)
      *program, isLogShown));
}

ProviderProcess::ProviderProcess(EventLoop& loop, ChildProcess child, FileDescriptor log,
                                 std::string program, bool isLogShown)
    : loop_(loop),
      child_(std::move(child)),
      log_(std::move(log)),
      program_(std::move(program)),
      isLogShown_(isLogShown) {
  childWatch_ = loop_.whenReadable(child_.descriptor(), [this] {
    hasEnded_ = true;
    childWatch_ = {};
  });
  logWatch_ = loop_.whenReadable(log_.get(), [this] { readLog(); });
}

void ProviderProcess::readLog() {
  std::array<char, 4096> piece;
  const ssize_t count = ::read(log_.get(), piece.data(), piece.size());
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count <= 0) {
    logWatch_ = {};
    return;
  }
  const std::string_view text(piece.data(), static_cast<std::size_t>(count));
  if (isLogShown_) static_cast<void>(!::write(STDERR_FILENO, text.data(), text.size()));
  partOfLine_ += text;
  for (std::size_t end = 0; (end = partOfLine_.find('\n')) != std::string::npos;) {
    lastLines_.push_back(partOfLine_.substr(0, end));
    partOfLine_.erase(0, end + 1);
    if (lastLines_.size() > mostLines) lastLines_.pop_front();
  }
}

Failure ProviderProcess::unexpectedEnd() {
  // Its last words may still be in the pipe.
  static_cast<void>(loop_.runUntil([] { return false; }, 50ms));
  std::string message =
      fmt::format("the provider has ended {}", howItEnded(child_.wait(killLimit).value_or(0)));
  if (!isLogShown_ && !lastLines_.empty()) {
    message += "; it said last:";
    for (const std::string& line : lastLines_) message += "\n  " + line;
  }
  return {std::move(message), "if it says nothing that helps, `tandor doctor` may"};
}

std::expected<void, Failure> ProviderProcess::end() {
  child_.send(SIGTERM);
  static_cast<void>(loop_.runUntil([this] { return hasEnded_; }, endLimit));
  if (!hasEnded_) child_.send(SIGKILL);
  if (child_.wait(killLimit) == 0) return {};
  return cleanUp();
}

std::expected<void, Failure> ProviderProcess::cleanUp() const {
  auto cleaner = ChildProcess::start({program_, "--cleanup"}, {});
  if (cleaner && cleaner->wait(cleanUpLimit) == 0) return {};
  return fail("the provider did not end in order, and cleaning up behind it failed",
              fmt::format("run `sudo {} --cleanup`", program_));
}

}  // namespace tandor::host
