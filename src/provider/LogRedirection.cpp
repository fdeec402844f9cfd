#include <fcntl.h>
#include <unistd.h>

#include "provider/TandorTransparentProxyProvider.h"
#include "support/Log.h"

namespace tandor {

void TandorTransparentProxyProvider::redirectLog(const std::string& path) {
  log("redirect log to:", path);
  constexpr mode_t readableAndWritable = 0666;  // less what the process's mask takes away
  const int file =
      ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, readableAndWritable);
  if (file < 0) {
    log("redirect failed to open file " + path);
    return;
  }
  if (::dup2(file, STDOUT_FILENO) < 0) log("failed to redirect stdout");
  if (::dup2(file, STDERR_FILENO) < 0) log("failed to redirect stderr");
  ::close(file);
}

}  // namespace tandor
