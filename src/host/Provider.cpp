#include "host/Provider.h"

#include <cerrno>
#include <cstdlib>
#include <unistd.h>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "host/JSONValues.h"
#include "host/PrivateFolder.h"
#include "ipc/AppMessage.h"
#include "platform/foundation/Base64.h"

namespace tandor::host {

using nlohmann::json;

namespace {

/// Rules are installed and removed by other programs, flows get their time to end.
constexpr std::chrono::seconds startLimit{30};
constexpr std::chrono::seconds stopLimit{30};

std::expected<void, Failure> outcome(const std::expected<json, Failure>& reply) {
  if (!reply) return std::unexpected(reply.error());
  return {};
}

}  // namespace

std::string defaultControlPath() {
  const char* runtimeDirectory = std::getenv("RUNTIME_DIRECTORY");
  return std::string(runtimeDirectory != nullptr ? runtimeDirectory : "/run/tandor") +
         "/control.sock";
}

bool ProviderStatus::isActive() const {
  return state == "starting" || state == "running" || state == "asleep";
}

std::expected<std::optional<Provider>, Failure> Provider::find(EventLoop& loop,
                                                               const std::string& path) {
  auto client = ControlClient::connect(loop, path);
  if (!client) {
    const int error = client.error();
    if (error == ENOENT || error == ECONNREFUSED) return std::nullopt;
    return std::unexpected(connectFailure(path, error));
  }
  const auto reply = (*client)->call("status");
  if (!reply) return std::unexpected(reply.error());
  Provider provider{path, std::move(*client), {}};
  provider.status.whole = reply->value("status", json::object());
  const json& whole = provider.status.whole;
  provider.status.state = textMember(whole, "state").value_or("unknown");
  provider.status.pid = static_cast<pid_t>(numberMember(whole, "pid").value_or(0));
  provider.status.version = textMember(whole, "version").value_or("unknown");
  return provider;
}

std::expected<std::optional<Provider>, Failure> Provider::choose(
    EventLoop& loop, const std::optional<std::string>& controlPath) {
  auto found = find(loop, controlPath.value_or(defaultControlPath()));
  if (!found || *found || controlPath) return found;

  std::vector<Provider> running;
  std::vector<std::string> paths;
  for (const auto& folder : liveFolders(runtimePlaces().front(), runFolderName)) {
    auto other = find(loop, (folder / "control.sock").string());
    if (!other || !*other) continue;
    paths.push_back((*other)->controlPath);
    running.push_back(std::move(**other));
  }
  if (running.empty()) return std::nullopt;
  if (running.size() > 1) {
    return fail("more than one `tandor run` is at work",
                fmt::format("say which one you mean with --control: {}", fmt::join(paths, ", ")));
  }
  return std::move(running.front());
}

std::expected<Provider, Failure> Provider::connect(EventLoop& loop,
                                                   const std::optional<std::string>& controlPath) {
  auto chosen = choose(loop, controlPath);
  if (!chosen) return std::unexpected(chosen.error());
  if (*chosen) return std::move(**chosen);
  return std::unexpected(connectFailure(controlPath.value_or(defaultControlPath()), ENOENT));
}

std::expected<void, Failure> Provider::checkVersion() const {
  if (status.version == TANDOR_VERSION) return {};
  return fail(
      fmt::format("the provider is version {}, this program {}", status.version, TANDOR_VERSION),
      "install the same version of both, then `sudo systemctl restart tandor`");
}

std::expected<void, Failure> Provider::checkIdle() const {
  if (!status.isActive()) return {};
  return fail(fmt::format("a provider is {} already (process {})", status.state, status.pid),
              "change it with `tandor update`, or stop it with `tandor stop`");
}

std::expected<void, Failure> Provider::start(const ProviderValues& values) const {
  const json protocol = {{"type", "NETunnelProviderProtocol"}, {"providerConfiguration", values}};
  return outcome(client->call("startProxy", {{"protocolConfiguration", protocol}}, startLimit));
}

std::expected<void, Failure> Provider::stop() const {
  constexpr int userInitiated = 1;
  return outcome(client->call("stopProxy", {{"reason", userInitiated}}, stopLimit));
}

std::expected<void, Failure> Provider::sleep() const {
  return outcome(client->call("sleep"));
}

std::expected<void, Failure> Provider::wake() const {
  return outcome(client->call("wake"));
}

std::expected<void, Failure> Provider::update(const ProviderValues& values) const {
  const Data message = makeAppMessage("updateConfig", Data::copying(json(values).dump()));
  return outcome(client->call("appMessage", {{"data", encodeBase64(message.bytes())}}));
}

}  // namespace tandor::host
