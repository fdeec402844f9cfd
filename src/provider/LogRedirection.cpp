#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "provider/TandorTransparentProxyProvider.h"
#include "support/Log.h"

namespace tandor {
namespace {

/// Whether a log can go to a file of this kind. A FIFO would have the start wait for its reader, a
/// terminal would become ours and end us when it hangs up, and a device does who knows what.
bool takesLog(const struct stat& file) {
  struct stat nowhere{};
  return S_ISREG(file.st_mode) || (S_ISCHR(file.st_mode) && ::stat("/dev/null", &nowhere) == 0 &&
                                   file.st_rdev == nowhere.st_rdev);
}

/// Opens a log to append to it, or makes it; negative when that is not possible. Never waits.
int openLog(const std::string& path) {
  constexpr mode_t readableAndWritable = 0666;  // less what the process's mask takes away
  struct stat found{};
  if (::stat(path.c_str(), &found) == 0 && !takesLog(found)) return -1;
  const int file =
      ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
             readableAndWritable);
  if (file < 0) return file;
  if (::fstat(file, &found) == 0 && takesLog(found)) return file;  // nobody has swapped it
  ::close(file);
  return -1;
}

}  // namespace

void TandorTransparentProxyProvider::redirectLog(const std::string& path) {
  log("redirect log to:", path);
  const int file = openLog(path);
  if (file < 0) {
    log("redirect failed to open file " + path);
    return;
  }
  if (::dup2(file, STDOUT_FILENO) < 0) log("failed to redirect stdout");
  if (::dup2(file, STDERR_FILENO) < 0) log("failed to redirect stderr");
  ::close(file);
}

}  // namespace tandor
