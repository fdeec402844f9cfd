// The way from the process entry into the session.

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <system_error>

#include <CLI/CLI.hpp>

#include "platform/linux/Admission.h"
#include "platform/linux/EndSignals.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/Interception.h"
#include "platform/linux/LinuxBackend.h"
#include "platform/linux/Privileges.h"
#include "platform/linux/Session.h"
#include "platform/linux/kernel/KernelPrograms.h"
#include "platform/networkextension/NETransparentProxyProvider.h"

namespace tandor {
namespace {

[[noreturn]] void giveUp(const std::string& message) {
  std::fputs(("tandor-provider: " + message + "\n").c_str(), stderr);
  std::exit(EXIT_FAILURE);
}

}  // namespace

void NETransparentProxyProvider::startSystemExtensionMode(std::span<char*> arguments,
                                                          Factory factory) {
  holdEndSignals();
  if (!openStandardDescriptors()) giveUp("cannot open /dev/null");
  CLI::App options(
      "The daemon that relays taken flows. It waits for a start on its control socket; "
      "tandor gives one.",
      "tandor-provider");
  std::string controlPath = defaultControlPath();
  options.add_option("--control", controlPath, "Path of the control socket")->capture_default_str();
  bool cleansUp = false;
  options.add_flag("--cleanup", cleansUp,
                   "Remove what a crashed provider left in the packet filter, and end");
  options.set_version_flag("--version", std::string("tandor-provider ") + TANDOR_VERSION);
  try {
    options.parse(static_cast<int>(arguments.size()), arguments.data());
  } catch (const CLI::ParseError& error) {
    constexpr int wrongUsage = 2;
    std::exit(options.exit(error) == 0 ? EXIT_SUCCESS : wrongUsage);
  }

  raiseDescriptorLimit();
  if (cleansUp) {
    if (auto clean = Interception::cleanUp(); !clean) giveUp(clean.error());
    std::exit(EXIT_SUCCESS);
  }
  auto programs = KernelPrograms::load(Admission::mostFlows());
  // A capability belongs to a thread: this is the time, while there is one.
  dropPrivileges();
  auto backend = LinuxBackend::make();
  if (!backend) giveUp("cannot start: " + std::generic_category().message(backend.error()));
  (*backend)->setKernelPrograms(std::move(programs));
  auto socket = openControlSocket(controlPath);
  if (!socket) giveUp(socket.error());

  // Both live as long as the process, whose threads use them to the end.
  PlatformBackend::install(backend->get());
  static const Session* session =
      std::make_unique<Session>(**backend, std::move(*socket), factory).release();
  static_cast<void>(session);
  static_cast<void>(backend->release());
}

}  // namespace tandor
