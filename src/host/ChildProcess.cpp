#include "host/ChildProcess.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "host/ApplicationResolver.h"

namespace tandor::host {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds toolLimit{5'000};

/// The rest of a new process's way to its program; only calls that are safe behind a fork.
[[noreturn]] void becomeProgram(const std::vector<char*>& arguments, ChildProcess::Streams streams,
                                pid_t parent, int errorPipe) {
  const int nowhere = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  if (nowhere >= 0) ::dup2(nowhere, STDIN_FILENO);
  // Through high numbers, so that neither stream overwrites the other's source.
  const int output = ::fcntl(streams.output < 0 ? nowhere : streams.output, F_DUPFD_CLOEXEC, 3);
  const int errors = ::fcntl(streams.errors < 0 ? nowhere : streams.errors, F_DUPFD_CLOEXEC, 3);
  ::dup2(output, STDOUT_FILENO);
  ::dup2(errors, STDERR_FILENO);
  ::setpgid(0, 0);
  ::prctl(PR_SET_PDEATHSIG, SIGTERM);
  for (const int signal : {SIGPIPE, SIGINT, SIGTERM, SIGHUP}) ::signal(signal, SIG_DFL);
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  if (::getppid() == parent) ::execv(arguments.front(), arguments.data());
  const int error = errno;
  static_cast<void>(!::write(errorPipe, &error, sizeof error));
  ::_exit(127);
}

}  // namespace

std::optional<Pipe> makePipe() {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return std::nullopt;
  return Pipe{FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

std::expected<ChildProcess, int> ChildProcess::start(const std::vector<std::string>& arguments,
                                                     Streams streams) {
  auto errorPipe = makePipe();
  if (!errorPipe) return std::unexpected(errno);
  std::vector<char*> pointers;
  pointers.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments)
    pointers.push_back(const_cast<char*>(argument.c_str()));  // execv does not write to them
  pointers.push_back(nullptr);
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid < 0) return std::unexpected(errno);
  if (pid == 0) becomeProgram(pointers, streams, parent, errorPipe->writing.get());

  ChildProcess child(pid, FileDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0))));
  errorPipe->writing.reset();
  int error = 0;
  ssize_t count = 0;
  while ((count = ::read(errorPipe->reading.get(), &error, sizeof error)) < 0 && errno == EINTR) {
  }
  if (count == sizeof error) return std::unexpected(error);
  return child;
}

ChildProcess::~ChildProcess() {
  if (!process_.isOpen() || status_) return;
  send(SIGKILL);
  static_cast<void>(wait(milliseconds(-1)));
}

void ChildProcess::send(int signal) const {
  if (!status_) ::kill(pid_, signal);  // it stays our own until it was waited for
}

std::optional<int> ChildProcess::wait(milliseconds limit) {
  constexpr int killedBySignal = 128;
  if (status_) return status_;
  pollfd waiting{.fd = process_.get(), .events = POLLIN, .revents = 0};
  if (::poll(&waiting, 1, static_cast<int>(limit.count())) <= 0) return std::nullopt;
  int status = 0;
  if (::waitpid(pid_, &status, 0) != pid_) return std::nullopt;
  status_ = WIFEXITED(status) ? WEXITSTATUS(status) : killedBySignal + WTERMSIG(status);
  return status_;
}

std::optional<std::string> outputOf(std::vector<std::string> arguments) {
  const auto program = findProgram(arguments.front());
  auto pipe = makePipe();
  if (!program || !pipe) return std::nullopt;
  arguments.front() = *program;
  auto child = ChildProcess::start(arguments, {.output = pipe->writing.get(), .errors = -1});
  pipe->writing.reset();
  if (!child) return std::nullopt;
  std::string output;
  pollfd waiting{.fd = pipe->reading.get(), .events = POLLIN, .revents = 0};
  std::array<char, 65536> piece;
  while (::poll(&waiting, 1, static_cast<int>(toolLimit.count())) > 0) {
    const ssize_t count = ::read(pipe->reading.get(), piece.data(), piece.size());
    if (count <= 0) break;
    output.append(piece.data(), static_cast<std::size_t>(count));
  }
  if (child->wait(toolLimit) != 0) return std::nullopt;
  return output;
}

std::optional<std::string> findProgram(const std::string& name) {
  for (const auto& folder : ApplicationPlaces::ofThisMachine().commands)
    if (const auto path = folder / name; ::access(path.c_str(), X_OK) == 0) return path.string();
  return std::nullopt;
}

std::string ownExecutable() {
  std::error_code ignored;
  return std::filesystem::read_symlink("/proc/self/exe", ignored).string();
}

}  // namespace tandor::host
