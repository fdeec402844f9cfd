#include "host/RegularFile.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "platform/linux/FileDescriptor.h"

namespace tandor::host {
namespace {

std::unexpected<std::string> failure(int error) {
  return std::unexpected(std::generic_category().message(error));
}

}  // namespace

std::expected<std::string, std::string> readRegularFile(const std::filesystem::path& path,
                                                        std::size_t most) {
  // A look that opens nothing; what it found is opened then, whatever is at the path by now.
  const FileDescriptor place(::open(path.c_str(), O_PATH | O_CLOEXEC));
  struct stat found{};
  if (!place.isOpen() || ::fstat(place.get(), &found) != 0) return failure(errno);
  if (!S_ISREG(found.st_mode)) return std::unexpected("it is no regular file");
  const std::string same = "/proc/self/fd/" + std::to_string(place.get());
  const FileDescriptor file(::open(same.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!file.isOpen()) return failure(errno);

  constexpr std::size_t piece = std::size_t{16} * 1024;
  std::string text;
  while (text.size() < most) {
    const std::size_t known = text.size();
    text.resize(known + std::min(piece, most - known));
    const ssize_t count = ::read(file.get(), text.data() + known, text.size() - known);
    if (count < 0) return failure(errno);
    text.resize(known + static_cast<std::size_t>(count));
    if (count == 0) break;
  }
  return text;
}

}  // namespace tandor::host
