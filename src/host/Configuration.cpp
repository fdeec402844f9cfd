#include "host/Configuration.h"

#include <algorithm>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace tandor::host {
namespace {

using nlohmann::json;

std::expected<std::vector<ResolvedApplication>, Failure> resolveAll(
    const std::vector<NamedApplication>& apps, const ApplicationResolver& resolver) {
  std::vector<ResolvedApplication> resolved;
  for (const NamedApplication& app : apps) {
    auto result = resolver.resolve(app.name);
    if (!result) {
      Failure failure = result.error();
      if (!app.origin.empty())
        failure.message = fmt::format("{}: \"apps\": {}", app.origin, failure.message);
      return std::unexpected(std::move(failure));
    }
    const auto isSame = [&](const ResolvedApplication& other) {
      return other.identifier == result->identifier;
    };
    if (std::ranges::none_of(resolved, isSame)) resolved.push_back(std::move(*result));
  }
  return resolved;
}

std::expected<void, Failure> checkComplete(const Settings& settings) {
  if (!settings.mode) {
    return wrongUsage("the mode is missing",
                      "add --mode webProxy, --mode directlyWhiteList or --mode tunnelWhiteList, "
                      "or \"mode\" in the configuration file");
  }
  if (settings.mode == Mode::webProxy && !settings.proxy) {
    return wrongUsage("webProxy mode needs a proxy",
                      "add --proxy HOST:PORT, or \"proxy\" in the configuration file");
  }
  const bool isListEmpty = !settings.apps || settings.apps->empty();
  if (settings.mode != Mode::tunnelWhiteList && isListEmpty) {
    return wrongUsage(
        fmt::format("{} mode without applications would do nothing", nameOf(*settings.mode)),
        "add --app APP for each application, or \"apps\" in the configuration file; `tandor apps` "
        "shows those that run");
  }
  return {};
}

std::string_view textOf(bool value) {
  return value ? "true" : "false";
}

}  // namespace

ProviderValues Configuration::values(const std::string& socketPath) const {
  json identifiers = json::array();
  for (const ResolvedApplication& app : apps) identifiers.push_back(app.identifier);
  ProviderValues values = {
      {"mode", std::string(nameOf(mode))},
      {"appIds", identifiers.dump(-1, ' ', false, json::error_handler_t::replace)},
      {"enable", std::string(textOf(enable))},
      {"debug", std::string(textOf(debug))},
  };
  if (proxy) {
    values["proxyHostname"] = proxy->host;
    values["proxyPort"] = std::to_string(proxy->port);
  }
  if (!log.empty()) values["logPath"] = log;
  if (!socketPath.empty()) values["socketPath"] = socketPath;
  // A provider judges by the phrase unless it is told otherwise.
  if (connectReply == ConnectReply::status) values["connectReply"] = "status";
  return values;
}

std::string Configuration::description() const {
  std::string text(nameOf(mode));
  if (mode == Mode::webProxy && proxy) text += " through " + proxy->description();
  if (mode == Mode::tunnelWhiteList)
    text += apps.empty() ? " for all applications" : " for all but";
  if (mode != Mode::tunnelWhiteList) text += " for";
  if (!apps.empty())
    text += fmt::format(" {} application{}", apps.size(), apps.size() == 1 ? "" : "s");
  if (!enable) text += ", switched off";
  return text;
}

std::expected<Configuration, Failure> makeConfiguration(const Settings& settings,
                                                        const ApplicationResolver& resolver) {
  if (auto complete = checkComplete(settings); !complete) return std::unexpected(complete.error());
  auto apps = resolveAll(settings.apps.value_or(std::vector<NamedApplication>()), resolver);
  if (!apps) return std::unexpected(apps.error());
  return Configuration{.mode = *settings.mode,
                       .apps = std::move(*apps),
                       .proxy = settings.proxy,
                       .log = settings.log.value_or(""),
                       .debug = settings.debug.value_or(false),
                       .enable = settings.enable.value_or(true),
                       .connectReply = settings.connectReply.value_or(ConnectReply::status)};
}

}  // namespace tandor::host
