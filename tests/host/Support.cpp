#include "host/Support.h"

#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <pty.h>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

namespace tandor::host::test {

namespace fs = std::filesystem;

bool eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

TemporaryFolder::TemporaryFolder() {
  std::string pattern = testing::TempDir() + "tandor-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary folder");
  path_ = fs::canonical(pattern);
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

void TemporaryFolder::write(std::string_view name, std::string_view text, bool isProgram) const {
  const fs::path path = path_ / name;
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
  if (isProgram) fs::permissions(path, fs::perms::owner_all);
}

void TemporaryFolder::link(std::string_view name, const std::string& target) const {
  fs::create_directories((path_ / name).parent_path());
  fs::create_symlink(target, path_ / name);
}

std::string readFile(const fs::path& path) {
  std::stringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

Tandor::Tandor(std::vector<std::string> arguments, const Settings& settings) {
  std::array<int, 2> ends{};
  const int made = settings.hasTerminal
                       ? ::openpty(ends.data(), &ends[1], nullptr, nullptr, nullptr)
                       : ::pipe2(ends.data(), O_CLOEXEC);
  if (made != 0) throw std::runtime_error("no pipe");
  reading_ = FileDescriptor(ends[0]);
  const FileDescriptor writing(ends[1]);
  ::fcntl(reading_.get(), F_SETFD, FD_CLOEXEC);
  const FileDescriptor errors(
      ::open((folder_ / "errors").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  // The environment is set by a program in between, not in this process with its threads.
  std::vector<std::string> line = {"/usr/bin/env", "-u", "NO_COLOR", "TERM=xterm"};
  for (const auto& [name, value] : settings.environment)
    line.emplace_back(name).append("=").append(value);
  line.push_back(settings.program);
  line.insert(line.end(), arguments.begin(), arguments.end());
  auto child = ChildProcess::start(line, {.output = writing.get(), .errors = errors.get()});
  if (!child) throw std::runtime_error("cannot run " + settings.program);
  child_ = std::move(*child);
}

bool Tandor::readMore() {
  pollfd waiting{.fd = reading_.get(), .events = POLLIN, .revents = 0};
  constexpr int limit = std::chrono::milliseconds(patience).count();
  if (::poll(&waiting, 1, limit) <= 0) return false;
  std::array<char, 4096> piece;
  const ssize_t count = ::read(reading_.get(), piece.data(), piece.size());
  if (count > 0) output_.append(piece.data(), static_cast<std::size_t>(count));
  return count > 0;
}

bool Tandor::awaitOutput(std::string_view text) {
  while (!output_.contains(text))
    if (!readMore()) return false;
  return true;
}

int Tandor::finish() {
  while (readMore()) {
  }
  return child_->wait(patience).value_or(-1);
}

std::vector<nlohmann::json> Tandor::values() const {
  std::vector<nlohmann::json> list;
  std::istringstream lines(output_);
  for (std::string line; std::getline(lines, line);)
    list.push_back(nlohmann::json::parse(line, nullptr, /*allow_exceptions=*/false));
  return list;
}

}  // namespace tandor::host::test
