#include <cerrno>
#include <csignal>
#include <filesystem>
#include <optional>
#include <system_error>
#include <unistd.h>
#include <vector>

#include "host/ChildProcess.h"
#include "host/Commands.h"

namespace tandor::host {
namespace {

namespace fs = std::filesystem;

/// The script of an installation, or of the source tree that this program was built in.
std::optional<fs::path> findDemo() {
  const fs::path folder = fs::path(ownExecutable()).parent_path();
  std::vector<fs::path> places = {folder / "../share/tandor/demo"};
  for (fs::path above = folder; above.has_relative_path(); above = above.parent_path())
    if (::access((above / "CMakePresets.json").c_str(), F_OK) == 0)
      places.push_back(above / "scripts/demo");
  for (const fs::path& place : places)
    if (::access(place.c_str(), X_OK) == 0) return place.lexically_normal();
  return std::nullopt;
}

}  // namespace

Outcome demoCommand(const Options& /*options*/, Output& /*output*/) {
  const auto script = findDemo();
  if (!script) {
    return fail("the demo is not installed",
                "install the package whole, or run scripts/demo of the source tree");
  }
  std::signal(SIGPIPE, SIG_DFL);
  ::execl(script->c_str(), script->c_str(), nullptr);
  return fail("cannot run " + script->string() + ": " + std::generic_category().message(errno),
              "it needs bash; see whether the script runs by itself");
}

}  // namespace tandor::host
