#include "load/Protocol.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <random>
#include <sys/mman.h>
#include <system_error>

#include <fmt/format.h>

#include "platform/linux/FileDescriptor.h"

namespace tandor::load {
namespace {

constexpr std::size_t randomOffset = 11;  // behind the headers of record and handshake, version
constexpr std::string_view magic = "tnd-load";
constexpr std::size_t operationOffset = randomOffset + magic.size();
constexpr std::size_t checkedOffset = operationOffset + 1;
constexpr std::size_t sizeOffset = checkedOffset + 1;

}  // namespace

void fail(const std::string& what) {
  fmt::print(stderr, "tandor-load: {}: {}\n", what, std::generic_category().message(errno));
  std::exit(1);
}

Hello::Hello(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  recorded_.assign(std::istreambuf_iterator<char>(file), {});
  if (recorded_.size() != size) fail(path + " is no hello of the right size");
}

std::string Hello::with(const Command& command) const {
  std::string hello = recorded_;
  hello.replace(randomOffset, magic.size(), magic);
  hello[operationOffset] = static_cast<char>(command.operation);
  hello[checkedOffset] = command.isChecked ? '\1' : '\0';
  std::memcpy(&hello[sizeOffset], &command.size, sizeof command.size);
  return hello;
}

std::optional<Command> Hello::commandIn(std::string_view bytes) {
  if (bytes.size() < size || bytes.substr(randomOffset, magic.size()) != magic) return std::nullopt;
  Command command{.operation = static_cast<Operation>(bytes[operationOffset]),
                  .isChecked = bytes[checkedOffset] != '\0'};
  std::memcpy(&command.size, &bytes[sizeOffset], sizeof command.size);
  return command;
}

Pattern::Pattern() {
  std::mt19937_64 random(20'26);
  bytes_.resize(period);
  std::ranges::generate(bytes_, [&] { return static_cast<char>(random()); });
  bytes_ += bytes_.substr(0, longestPiece);
}

bool Pattern::matches(std::span<const char> piece, std::uint64_t position) const {
  while (!piece.empty()) {
    const std::size_t count = std::min(piece.size(), longestPiece);
    if (std::memcmp(piece.data(), at(position), count) != 0) return false;
    piece = piece.subspan(count);
    position += count;
  }
  return true;
}

Counters& Counters::shared(const std::string& path) {
  const FileDescriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (!file.isOpen() || ::ftruncate(file.get(), sizeof(Counters)) != 0) fail(path);
  void* memory =
      ::mmap(nullptr, sizeof(Counters), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
  if (memory == MAP_FAILED) fail(path);
  return *static_cast<Counters*>(memory);
}

}  // namespace tandor::load
