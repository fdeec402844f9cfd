#include "host/CommandLine.h"

#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>
#include <system_error>
#include <utility>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "host/Commands.h"
#include "host/Completions.h"
#include "host/Failure.h"

namespace tandor::host {
namespace {

template <typename Names>
std::vector<std::string> list(const Names& names) {
  return {std::begin(names), std::end(names)};
}

/// The parser, and what it reads.
class CommandLine {
 public:
  CommandLine() {
    app_.set_version_flag("--version", std::string("tandor ") + TANDOR_VERSION);
    app_.add_option("--control", options_.control,
                    "Control socket of the provider (default: /run/tandor/control.sock)")
        ->type_name("PATH");
    app_.add_flag("--json", options_.json, "Print JSON for programs");
    app_.fallthrough();
    app_.failure_message([](const CLI::App* app, const CLI::Error& error) {
      std::string command = app->get_name();
      for (const CLI::App* chosen : app->get_subcommands()) command += " " + chosen->get_name();
      return fmt::format("tandor: {}\ntandor: `{} --help` shows how it is used\n", error.what(),
                         command);
    });
    addConfiguring();
    addOthers();
  }

  [[nodiscard]] std::expected<Options, int> parse(int count, const char* const* arguments) {
    try {
      app_.parse(count, arguments);
    } catch (const CLI::ParseError& error) {
      return std::unexpected(app_.exit(error) == 0 ? exitDone : exitWrongUsage);
    }
    if (app_.get_subcommands().empty()) {
      std::cerr << app_.help();
      return std::unexpected(exitWrongUsage);
    }
    if (const auto failure = readTexts(); !failure.empty()) {
      std::cerr << fmt::format("tandor: {}\n", failure);
      return std::unexpected(exitWrongUsage);
    }
    return options_;
  }

  [[nodiscard]] const CLI::App& app() const noexcept { return app_; }

 private:
  CLI::App* addCommand(const std::string& name, const std::string& description,
                       Outcome (*command)(const Options&, Output&)) {
    CLI::App* added = app_.add_subcommand(name, description);
    added->callback([this, command] { options_.command = command; });
    return added;
  }

  void addConfiguring() {
    CLI::App* run =
        addCommand("run", "Start a provider, show what it does, and stop it on Ctrl-C", runCommand);
    CLI::App* start = addCommand("start", "Start the provider of the service", startCommand);
    addCommand("stop", "Stop the provider", stopCommand);
    CLI::App* update =
        addCommand("update", "Change the configuration of the running provider", updateCommand);
    for (CLI::App* command : {run, start, update}) addConfiguration(*command);
    run->add_flag("--all", options_.showsAll, "Also show flows that stay with the kernel");
  }

  void addConfiguration(CLI::App& command) {
    command.add_option("--mode", mode_, "Whose flows are taken, and how they travel")
        ->check(CLI::IsMember(list(modeNames)));
    command
        .add_option("--app", apps_,
                    "An application: a path, a command, a Flatpak id, a snap, the name in a "
                    "menu, or id:IDENTIFIER; once for each")
        ->type_name("APP")
        ->allow_extra_args(false);
    command.add_option("--proxy", proxy_, "The HTTP proxy of webProxy mode")
        ->type_name("HOST:PORT");
    command.add_option("--log", options_.settings.log, "File that the provider writes its log to")
        ->type_name("FILE");
    command.add_flag_callback(
        "--debug", [this] { options_.settings.debug = true; }, "Log every flow");
    command.add_flag_callback(
        "--no-debug", [this] { options_.settings.debug = false; }, "Log only what matters");
    command
        .add_option("--config", options_.configurationFile,
                    "Configuration file (default of run and start: /etc/tandor/tandor.json)")
        ->type_name("FILE");
    command
        .add_option("--connect-reply", connectReply_,
                    "What tells that the proxy agrees: the status code, or the customary phrase")
        ->check(CLI::IsMember(list(connectReplyNames)));
  }

  void addOthers() {
    addCommand("sleep", "Close every taken flow and take none until woken", sleepCommand);
    addCommand("wake", "Take flows again", wakeCommand);
    addCommand("status", "Show the provider's state", statusCommand);
    CLI::App* flows = addCommand("flows", "Show the flows that are taken", flowsCommand);
    flows->add_flag("--watch", options_.watches, "Go on with what happens, until Ctrl-C");
    flows->add_flag("--all", options_.showsAll,
                    "While watching, also show flows that stay with the kernel");
    addCommand("apps", "Show running applications that have internet sockets", appsCommand);
    addCommand("doctor", "Check what interception needs, without changing anything", doctorCommand);
    addCommand("demo", "See it work on real programs, in a network of its own", demoCommand);
    CLI::App* completions =
        addCommand("completions", "Print completions for a shell", completionsCommand);
    completions->add_option("shell", options_.shell, "The shell")
        ->required()
        ->check(CLI::IsMember({"bash", "zsh", "fish"}));
    completions->group("");
  }

  /// Turns texts into settings; returns what is wrong with them, empty for nothing.
  [[nodiscard]] std::string readTexts() {
    Settings& settings = options_.settings;
    settings.mode = modeNamed(mode_);
    settings.connectReply = connectReplyNamed(connectReply_);
    if (!apps_.empty()) {
      settings.apps.emplace();
      for (const std::string& app : apps_) settings.apps->push_back({app, {}});
    }
    if (settings.log && !settings.log->empty()) {
      std::error_code ignored;
      settings.log = std::filesystem::absolute(*settings.log, ignored).lexically_normal().string();
    }
    if (proxy_.empty()) return {};
    auto proxy = Proxy::parse(proxy_);
    if (!proxy) {
      return fmt::format(
          "--proxy {}: {}\ntandor: write it as HOST:PORT, such as "
          "proxy.example:3128",
          proxy_, proxy.error());
    }
    settings.proxy = std::move(*proxy);
    return {};
  }

  CLI::App app_{
      "Sends the flows of chosen applications through a proxy, or directly over a physical "
      "interface; every other flow stays as it is.",
      "tandor"};
  Options options_;
  std::string mode_;
  std::vector<std::string> apps_;
  std::string proxy_;
  std::string connectReply_;
};

}  // namespace

std::expected<Options, int> parseCommandLine(int count, const char* const* arguments) {
  return CommandLine().parse(count, arguments);
}

Outcome completionsCommand(const Options& options, Output& /*output*/) {
  Output(/*isJSON=*/false).line(printCompletions(commandTree(CommandLine().app()), options.shell));
  return exitDone;
}

}  // namespace tandor::host
