// A provider in the foreground: started, shown while it works, stopped.

#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "host/Commands.h"
#include "host/FlowText.h"
#include "host/JSONValues.h"
#include "host/PrivateFolder.h"
#include "host/Provider.h"
#include "host/ProviderProcess.h"
#include "host/SentConfiguration.h"
#include "host/Signals.h"
#include "host/StatusSocket.h"

namespace tandor::host {

using nlohmann::json;
using namespace std::chrono_literals;

namespace {

constexpr auto childLimit = 10s;
constexpr auto childInterval = 20ms;
constexpr auto farewellLimit = 10s;

/// One `tandor run`, from the search for a provider to its end.
class RunSession {
 public:
  RunSession(const Options& options, Output& output)
      : options_(options), output_(output), signals_(loop_, [this] { isEndWanted_ = true; }) {}

  [[nodiscard]] Outcome run(const Configuration& configuration) {
    Result result = attach();
    if (result) result = start(configuration);
    if (result) result = watchUntilTheEnd();
    return finish(std::move(result));
  }

 private:
  using Result = std::expected<void, Failure>;

  /// Finds an idle provider, or starts one.
  [[nodiscard]] Result attach() {
    const std::string path = options_.control.value_or(defaultControlPath());
    auto found = Provider::find(loop_, path);
    if (!found) return std::unexpected(found.error());
    if (!*found) return launch();
    if (auto idle = (*found)->checkIdle(); !idle) return idle;  // it is somebody else's
    provider_ = std::move(**found);
    return {};
  }

  [[nodiscard]] Result launch() {
    if (::geteuid() != 0) {
      return fail(
          "not permitted to intercept flows",
          "run it with sudo: sudo tandor run ...; or let an administrator start the service");
    }
    auto folder = PrivateFolder::make(runFolderName, runtimePlaces());
    if (!folder) return std::unexpected(folder.error());
    folder_.emplace(std::move(*folder));
    const std::string path = options_.control.value_or((folder_->path() / "control.sock").string());
    auto process = ProviderProcess::start(loop_, path, options_.settings.debug.value_or(false));
    if (!process) return std::unexpected(process.error());
    process_ = std::move(*process);
    const auto deadline = std::chrono::steady_clock::now() + childLimit;
    while (std::chrono::steady_clock::now() < deadline && !isEndWanted_) {
      static_cast<void>(loop_.runUntil([this] { return process_->hasEnded(); }, childInterval));
      if (process_->hasEnded()) return std::unexpected(process_->unexpectedEnd());
      auto found = Provider::find(loop_, path);
      if (!found) return std::unexpected(found.error());
      if (*found) {
        provider_ = std::move(**found);
        return {};
      }
    }
    if (isEndWanted_) return {};
    return fail("the provider that was started does not answer", "try again with --debug");
  }

  [[nodiscard]] Result start(const Configuration& configuration) {
    if (isEndWanted_) return {};
    if (auto same = provider_->checkVersion(); !same) return same;
    auto status = StatusSocket::listenBeside(provider_->controlPath, loop_,
                                             [this](const StatusChange& change) { hear(change); });
    if (!status) return std::unexpected(status.error());
    status_ = std::move(*status);
    provider_->client->setEventHandler([this](const json& event) { show(event); });
    if (auto watched = provider_->client->call("watch", {{"flows", true}}); !watched)
      output_.failure(watched.error());

    const ProviderValues values = configuration.values(status_->path());
    json configured = {{"event", "configured"}, {"control", provider_->controlPath}};
    configured["pid"] = provider_->status.pid;
    configured["configuration"] = describeJSON(configuration);
    output_.value(configured);
    output_.line(printable(configuration.description()));
    if (auto started = provider_->start(values); !started) return started;
    isStarted_ = true;
    if (auto kept = keepSent(provider_->controlPath, provider_->status.pid, values); !kept)
      output_.failure(kept.error());
    output_.line("Ctrl-C stops it; in another terminal: tandor status, flows, update");
    return {};
  }

  void hear(const StatusChange& change) {
    const bool hasStarted = change.status == ProxyProviderStatus::started;
    // One whose start has failed tells when it is ended, too; that is no news.
    if (!hasStarted && !isStarted_) return;
    if (!hasStarted) hasStopped_ = true;
    const std::string_view name = hasStarted ? "started" : "stopped";
    output_.line(output_.paint(hasStarted ? Output::Colour::green : Output::Colour::bold, name) +
                 (change.text.empty() ? "" : printable(" (" + change.text + ")")));
    json event = {{"event", name}};
    if (!change.text.empty()) event["text"] = change.text;
    output_.value(event);
  }

  void show(const json& event) {
    if (options_.showsAll || !isAboutLeftFlow(event)) output_.line(describeEvent(event, output_));
    output_.value(event);
  }

  [[nodiscard]] bool hasProviderEnded() const {
    return process_ != nullptr ? process_->hasEnded() : !provider_->client->isConnected();
  }

  [[nodiscard]] Result watchUntilTheEnd() {
    static_cast<void>(loop_.runUntil(
        [this] { return isEndWanted_ || hasStopped_ || hasProviderEnded() || !output_.isRead(); }));
    if (hasStopped_ && !isEndWanted_) {
      // Somebody else stopped it, or the whole provider ends.
      Output::note("the provider was stopped by somebody else");
      isStarted_ = false;
      return {};
    }
    if (!isStarted_ || !hasProviderEnded()) return {};
    isStarted_ = false;
    if (process_ != nullptr) return std::unexpected(process_->unexpectedEnd());
    return fail("the provider has ended", "look at its log; flows go their native way meanwhile");
  }

  /// Leaves nothing behind, whatever happened. The first failure counts.
  [[nodiscard]] Outcome finish(Result result) {
    if (isStarted_) {
      auto stopped = provider_->stop();
      static_cast<void>(
          loop_.runUntil([this] { return hasStopped_ || hasProviderEnded(); }, farewellLimit));
      if (result && !stopped && !hasStopped_) result = stopped;
    }
    if (provider_) forgetSent(provider_->controlPath);
    if (process_ != nullptr)
      if (auto ended = process_->end(); !ended && result) result = ended;
    status_ = nullptr;
    folder_ = std::nullopt;
    if (!result) return std::unexpected(result.error());
    return exitDone;
  }

  const Options& options_;
  Output& output_;
  EventLoop loop_;
  bool isEndWanted_ = false;
  bool isStarted_ = false;
  bool hasStopped_ = false;
  EndSignals signals_;
  std::optional<PrivateFolder> folder_;
  std::unique_ptr<ProviderProcess> process_;
  std::unique_ptr<StatusSocket> status_;
  std::optional<Provider> provider_;
};

}  // namespace

Outcome runCommand(const Options& options, Output& output) {
  const auto configuration = configurationToStart(options, output);
  if (!configuration) return std::unexpected(configuration.error());
  return RunSession(options, output).run(*configuration);
}

}  // namespace tandor::host
