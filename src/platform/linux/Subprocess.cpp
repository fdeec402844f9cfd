#include "platform/linux/Subprocess.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/linux/FileDescriptor.h"

namespace tandor {
namespace {

struct Pipe {
  FileDescriptor reading;
  FileDescriptor writing;
};

std::expected<Pipe, int> makePipe() {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return std::unexpected(errno);
  return Pipe{FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

/// Spawn attributes that give the child the default signals, whatever this process ignores. Those
/// that ask for the end of all who share a terminal or a unit are not for the child: it is about to
/// do what its parent's end needs, or to change what must not be changed in half.
class SpawnSettings {
 public:
  SpawnSettings() {
    ::posix_spawn_file_actions_init(&actions_);
    ::posix_spawnattr_init(&attributes_);
    sigset_t ends;
    sigset_t all;
    ::sigemptyset(&ends);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) ::sigaddset(&ends, signal);
    ::sigfillset(&all);
    ::posix_spawnattr_setsigmask(&attributes_, &ends);
    ::posix_spawnattr_setsigdefault(&attributes_, &all);
    ::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;
  ~SpawnSettings() {
    ::posix_spawn_file_actions_destroy(&actions_);
    ::posix_spawnattr_destroy(&attributes_);
  }

  void redirect(const FileDescriptor& from, int to) {
    ::posix_spawn_file_actions_adddup2(&actions_, from.get(), to);
  }
  [[nodiscard]] const posix_spawn_file_actions_t* actions() const noexcept { return &actions_; }
  [[nodiscard]] const posix_spawnattr_t* attributes() const noexcept { return &attributes_; }

 private:
  posix_spawn_file_actions_t actions_{};
  posix_spawnattr_t attributes_{};
};

/// Feeds `input` and collects both outputs at once, so that no side waits for another.
void exchange(FileDescriptor input, std::string_view toWrite, FileDescriptor output,
              std::string& outputText, FileDescriptor errors, std::string& errorText) {
  ::fcntl(input.get(), F_SETFL, O_NONBLOCK);
  if (toWrite.empty()) input.reset();
  while (input.isOpen() || output.isOpen() || errors.isOpen()) {
    std::array<pollfd, 3> waiting = {{{.fd = input.get(), .events = POLLOUT, .revents = 0},
                                      {.fd = output.get(), .events = POLLIN, .revents = 0},
                                      {.fd = errors.get(), .events = POLLIN, .revents = 0}}};
    if (::poll(waiting.data(), waiting.size(), -1) < 0 && errno != EINTR) return;
    if (waiting[0].revents != 0) {
      const ssize_t count = ::write(input.get(), toWrite.data(), toWrite.size());
      if (count > 0) toWrite.remove_prefix(static_cast<std::size_t>(count));
      if (toWrite.empty() || (count < 0 && errno != EAGAIN && errno != EINTR)) input.reset();
    }
    const auto collect = [](const pollfd& ready, FileDescriptor& from, std::string& text) {
      if (ready.revents == 0) return;
      std::array<char, 4096> buffer;
      const ssize_t count = ::read(from.get(), buffer.data(), buffer.size());
      if (count > 0) {
        text.append(buffer.data(), static_cast<std::size_t>(count));
      } else if (count == 0 || errno != EINTR) {
        from.reset();
      }
    };
    collect(waiting[1], output, outputText);
    collect(waiting[2], errors, errorText);
  }
}

}  // namespace

std::expected<SubprocessResult, int> runProgram(std::vector<std::string> arguments,
                                                const std::string& input) {
  auto toChild = makePipe();
  auto fromChild = makePipe();
  auto errorsOfChild = makePipe();
  if (!toChild || !fromChild || !errorsOfChild) return std::unexpected(EMFILE);
  SpawnSettings settings;
  settings.redirect(toChild->reading, STDIN_FILENO);
  settings.redirect(fromChild->writing, STDOUT_FILENO);
  settings.redirect(errorsOfChild->writing, STDERR_FILENO);

  std::vector<char*> pointers;
  pointers.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  // The daemon's own environment says nothing about where system programs are.
  std::string path = "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
  std::array<char*, 2> environment = {path.data(), nullptr};
  int error = ENOENT;
  pid_t child = 0;
  for (const std::string_view folder : {"/usr/sbin/", "/sbin/", "/usr/local/sbin/", "/usr/bin/"}) {
    const std::string program = std::string(folder) + arguments.front();
    error = ::posix_spawn(&child, program.c_str(), settings.actions(), settings.attributes(),
                          pointers.data(), environment.data());
    if (error != ENOENT) break;
  }
  if (error != 0) return std::unexpected(error);

  toChild->reading.reset();
  fromChild->writing.reset();
  errorsOfChild->writing.reset();
  SubprocessResult result{0, {}, {}};
  exchange(std::move(toChild->writing), input, std::move(fromChild->reading), result.output,
           std::move(errorsOfChild->reading), result.errors);
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  constexpr int killedBySignal = 128;
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : killedBySignal + WTERMSIG(status);
  return result;
}

}  // namespace tandor
