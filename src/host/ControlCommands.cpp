// The commands that call a provider once.

#include <filesystem>
#include <functional>
#include <system_error>
#include <utility>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "host/Commands.h"
#include "host/ConfigurationFile.h"
#include "host/JSONValues.h"
#include "host/Provider.h"
#include "host/SentConfiguration.h"
#include "host/StatusSocket.h"

namespace tandor::host {

using nlohmann::json;

namespace {

using Call = std::function<std::expected<void, Failure>(const Provider&)>;

/// Makes one call, and tells the state that the provider is in then.
Outcome callOnce(const Options& options, Output& output, const Call& call, std::string_view state,
                 std::string_view sentence) {
  EventLoop loop;
  const auto provider = Provider::connect(loop, options.control);
  if (!provider) return std::unexpected(provider.error());
  if (auto called = call(*provider); !called) return std::unexpected(called.error());
  output.line(sentence);
  output.value({{"state", state}});
  return exitDone;
}

void keep(const Provider& provider, const ProviderValues& values, const Output& output) {
  if (auto kept = keepSent(provider.controlPath, provider.status.pid, values); !kept)
    output.failure(kept.error());
}

/// Shows what the applications were resolved to, with warnings.
void showApplications(const Configuration& configuration, Output& output) {
  for (const ResolvedApplication& app : configuration.apps) {
    if (app.name != app.identifier)
      output.line(printable(fmt::format("{} is {}", app.name, app.identifier)));
    if (!app.warning.empty()) Output::note(printable(app.warning));
  }
}

std::expected<Settings, Failure> settingsOfFile(const Options& options) {
  if (options.configurationFile) return readConfigurationFile(*options.configurationFile);
  return Settings{};
}

}  // namespace

json describeJSON(const Configuration& configuration) {
  json apps = json::array();
  for (const ResolvedApplication& app : configuration.apps) {
    json entry = {{"name", app.name}, {"identifier", app.identifier}};
    if (!app.warning.empty()) entry["warning"] = app.warning;
    apps.push_back(std::move(entry));
  }
  return {
      {"mode", nameOf(configuration.mode)},
      {"proxy", configuration.proxy ? json(configuration.proxy->description()) : json()},
      {"apps", std::move(apps)},
      {"log", configuration.log.empty() ? json() : json(configuration.log)},
      {"debug", configuration.debug},
      {"enable", configuration.enable},
      {"connectReply", connectReplyNames[static_cast<std::size_t>(configuration.connectReply)]}};
}

std::expected<Configuration, Failure> configurationToStart(const Options& options, Output& output) {
  Options withFile = options;
  std::error_code ignored;
  if (!options.configurationFile && std::filesystem::exists(defaultConfigurationFile, ignored))
    withFile.configurationFile = defaultConfigurationFile;
  const auto file = settingsOfFile(withFile);
  if (!file) return std::unexpected(file.error());
  auto configuration = makeConfiguration(overlay(options.settings, *file),
                                         ApplicationResolver(ApplicationPlaces::ofThisMachine()));
  if (configuration) showApplications(*configuration, output);
  return configuration;
}

Outcome startCommand(const Options& options, Output& output) {
  const auto configuration = configurationToStart(options, output);
  if (!configuration) return std::unexpected(configuration.error());
  EventLoop loop;
  const auto provider = Provider::connect(loop, options.control);
  if (!provider) return std::unexpected(provider.error());
  for (const auto check : {&Provider::checkVersion, &Provider::checkIdle})
    if (auto passed = ((*provider).*check)(); !passed) return std::unexpected(passed.error());

  bool isStarted = false;
  const auto status =
      StatusSocket::listenBeside(provider->controlPath, loop, [&](const StatusChange& change) {
        isStarted = change.status == ProxyProviderStatus::started;
      });
  if (!status) return std::unexpected(status.error());
  if (auto started = provider->start(configuration->values((*status)->path())); !started)
    return std::unexpected(started.error());
  if (!isStarted) Output::note("the provider did not tell that it has started");
  // From now on nobody listens there; a provider that did not know would wait for an answer.
  const ProviderValues values = configuration->values({});
  if (auto updated = provider->update(values); !updated) output.failure(updated.error());
  keep(*provider, values, output);
  output.line(fmt::format(
      "{}: {} (provider {}, process {})", output.paint(Output::Colour::green, "started"),
      printable(configuration->description()), provider->status.version, provider->status.pid));
  json result = {{"state", "running"}, {"pid", provider->status.pid}};
  result["configuration"] = describeJSON(*configuration);
  output.value(result);
  return exitDone;
}

Outcome updateCommand(const Options& options, Output& output) {
  const auto file = settingsOfFile(options);
  if (!file) return std::unexpected(file.error());
  const Settings wanted = overlay(options.settings, *file);
  if (wanted == Settings()) {
    return wrongUsage("there is nothing to update",
                      "name what changes, for example --mode tunnelWhiteList, or --config FILE");
  }
  EventLoop loop;
  const auto provider = Provider::connect(loop, options.control);
  if (!provider) return std::unexpected(provider.error());
  if (auto same = provider->checkVersion(); !same) return std::unexpected(same.error());
  if (!provider->status.isActive())
    return fail("no provider is running", "start it with `tandor start` or `tandor run`");
  const auto sent = lastSent(provider->controlPath, provider->status.pid);
  if (!sent) Output::note("what was sent last is not known here; options left out get defaults");
  const Settings last = sent ? settingsOf(*sent) : Settings();
  const auto configuration = makeConfiguration(
      overlay(wanted, last), ApplicationResolver(ApplicationPlaces::ofThisMachine()));
  if (!configuration) return std::unexpected(configuration.error());
  showApplications(*configuration, output);

  const bool hasSocket = sent && sent->contains("socketPath");
  const ProviderValues values =
      configuration->values(hasSocket ? sent->at("socketPath") : std::string());
  if (auto updated = provider->update(values); !updated) return std::unexpected(updated.error());
  keep(*provider, values, output);
  if (sent && last.log.value_or("") != configuration->log)
    Output::note("the log moves to its new file with the next start");
  output.line(printable("updated: " + configuration->description()));
  output.value(
      {{"state", provider->status.state}, {"configuration", describeJSON(*configuration)}});
  return exitDone;
}

Outcome stopCommand(const Options& options, Output& output) {
  const auto stop = [](const Provider& provider) {
    auto stopped = provider.stop();
    if (stopped) forgetSent(provider.controlPath);
    return stopped;
  };
  return callOnce(options, output, stop, "stopped", "stopped; every flow goes its native way");
}

Outcome sleepCommand(const Options& options, Output& output) {
  return callOnce(options, output, &Provider::sleep, "asleep", "asleep; `tandor wake` goes on");
}

Outcome wakeCommand(const Options& options, Output& output) {
  return callOnce(options, output, &Provider::wake, "running", "awake");
}

}  // namespace tandor::host
