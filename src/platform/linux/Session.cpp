#include "platform/linux/Session.h"

#include <csignal>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <unistd.h>
#include <utility>

#include <asio/post.hpp>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <systemd/sd-daemon.h>

#include "platform/foundation/Base64.h"
#include "platform/foundation/NSLog.h"
#include "platform/linux/EndSignals.h"
#include "platform/linux/JSONValue.h"

namespace tandor {

using nlohmann::json;

namespace {

/// What the start call carries as the provider's configuration; a type that we do not know reaches
/// the provider as what it is, a configuration of another type.
std::expected<std::shared_ptr<const NEVPNProtocol>, std::string> protocolConfiguration(
    const json& request) {
  const auto configuration = request.find("protocolConfiguration");
  if (configuration == request.end() || configuration->is_null()) return nullptr;
  if (!configuration->is_object())
    return std::unexpected("\"protocolConfiguration\" is not an object");
  class OtherProtocol final : public NEVPNProtocol {};
  const auto type = configuration->find("type");
  if (type == configuration->end() || *type != "NETunnelProviderProtocol")
    return std::make_shared<const OtherProtocol>();
  const auto values = configuration->find("providerConfiguration");
  if (values == configuration->end() || values->is_null())
    return std::make_shared<const NETunnelProviderProtocol>(std::nullopt);
  if (!values->is_object()) return std::unexpected("\"providerConfiguration\" is not an object");
  return std::make_shared<const NETunnelProviderProtocol>(anyDictionary(*values));
}

constexpr std::int64_t interceptionFailed = 1;
/// How long a provider usually takes to stop; it may wait longer for its host application.
constexpr auto usualStop = std::chrono::milliseconds(100);

/// A reason without a name is the provider's to judge, one that is no number of its kind is not.
std::optional<NEProviderStopReason> stopReason(const json& number) {
  const auto fitting = [](auto value) -> std::optional<NEProviderStopReason> {
    if (!std::in_range<std::int32_t>(value)) return std::nullopt;
    return static_cast<NEProviderStopReason>(value);
  };
  if (number.is_number_unsigned()) return fitting(number.get<std::uint64_t>());
  if (number.is_number_integer()) return fitting(number.get<std::int64_t>());
  return std::nullopt;
}

/// The open flows as a JSON list, piece by piece. It begins when the first piece is asked for: a
/// client that does not read keeps nothing.
class FlowList {
 public:
  explicit FlowList(FlowRegistry& registry) : registry_(registry) {}

  std::string operator()() {
    constexpr std::size_t flowsOfPiece = 64;
    if (isComplete_) return {};
    const bool isFirst = listing_ == nullptr;
    if (isFirst) listing_ = std::make_unique<FlowRegistry::Listing>(registry_);
    const std::vector<FlowInfo> flows = listing_->next(flowsOfPiece);
    isComplete_ = flows.empty();
    if (isComplete_) return isFirst ? "[]" : "]";
    std::string piece;
    for (const FlowInfo& flow : flows) {
      piece += isFirst && piece.empty() ? '[' : ',';
      piece += flowJSON(flow).dump(-1, ' ', false, json::error_handler_t::replace);
    }
    return piece;
  }

 private:
  FlowRegistry& registry_;
  std::unique_ptr<FlowRegistry::Listing> listing_;
  bool isComplete_ = false;
};

void failNotRunning(const ControlServer::Reply& reply) {
  reply.fail(ControlError::notRunning, "no provider is running; start one first");
}

/// The socket's path, for the process's end from whatever place: a failed start ends it, too.
std::string& ownedControlPath() {
  static std::string& path = *std::make_unique<std::string>().release();
  return path;
}

void releaseControlSocket() {
  if (!ownedControlPath().empty()) ::unlink(ownedControlPath().c_str());
}

/// Before anybody is served: the first request may end the process.
FileDescriptor releasedAtExit(ControlSocket socket) {
  ownedControlPath() = std::move(socket.ownedPath);
  std::at_quick_exit(releaseControlSocket);
  return std::move(socket.descriptor);
}

}  // namespace

Session::Session(LinuxBackend& backend, ControlSocket socket,
                 NETransparentProxyProvider::Factory factory)
    : backend_(backend),
      factory_(factory),
      since_(std::chrono::system_clock::now()),
      watch_(backend.service(), registry_),
      signals_(backend.service().context()),
      server_(backend.service(), releasedAtExit(std::move(socket)),
              [this](const std::string& call, const json& request,
                     const ControlServer::Reply& reply) { handle(call, request, reply); }) {
  for (const int signal : endSignals()) signals_.add(signal);
  awaitSignal();
  asio::post(backend.service().context(), [] { admitEndSignals(); });
  ::sd_notify(0, "READY=1");
}

void Session::enter(State state) {
  const std::scoped_lock lock(mutex_);
  state_ = state;
  since_ = std::chrono::system_clock::now();
}

std::shared_ptr<NETransparentProxyProvider> Session::provider() const {
  const std::scoped_lock lock(mutex_);
  return provider_;
}

Session::State Session::state() const {
  const std::scoped_lock lock(mutex_);
  return state_;
}

void Session::setTunnelNetworkSettings(const NETransparentProxyNetworkSettings& /*settings*/,
                                       Completion completion) {
  auto installed = Interception::install(backend_, registry_, provider(), *this);
  if (!installed) {
    completion(NSError("TandorPlatformError", interceptionFailed, installed.error()));
    return;
  }
  interception_ = std::move(*installed);
  completion(std::nullopt);
}

void Session::handle(const std::string& call, const json& request,
                     const ControlServer::Reply& reply) {
  if (call == "startProxy") {
    auto configuration = protocolConfiguration(request);
    if (!configuration) {
      reply.fail(ControlError::badArgument, configuration.error());
      return;
    }
    queue_->async(
        [this, configuration = std::move(*configuration), reply] { start(configuration, reply); });
  } else if (call == "stopProxy") {
    const auto reason = stopReason(request.value("reason", json(1)));
    if (!reason) {
      reply.fail(ControlError::badArgument, "\"reason\" is no number of 32 bits");
      return;
    }
    queue_->async([this, reply, reason = *reason] {
      if (stop(reason, State::stopped)) {
        reply.succeed();
      } else {
        failNotRunning(reply);
      }
    });
  } else if (call == "sleep") {
    withProvider(reply, [this, reply](NETransparentProxyProvider& provider) {
      provider.sleep([this, reply] {
        if (state() == State::running) enter(State::asleep);
        reply.succeed();
      });
    });
  } else if (call == "wake") {
    withProvider(reply, [this, reply](NETransparentProxyProvider& provider) {
      provider.wake();
      if (state() == State::asleep) enter(State::running);
      reply.succeed();
    });
  } else if (call == "appMessage") {
    const auto text = request.find("data");
    const auto bytes = text != request.end() && text->is_string()
                           ? decodeBase64(text->get_ref<const std::string&>())
                           : std::nullopt;
    if (!bytes) {
      reply.fail(ControlError::badArgument, "\"data\" is not base64 text");
      return;
    }
    withProvider(reply,
                 [reply, message = Data::copying(*bytes)](NETransparentProxyProvider& provider) {
                   provider.handleAppMessage(message, [reply](const std::optional<Data>& answer) {
                     json members;
                     members["data"] = answer ? json(encodeBase64(answer->bytes())) : json();
                     reply.succeed(members);
                   });
                 });
  } else if (call == "status") {
    replyStatus(reply);
  } else if (call == "flows") {
    replyFlows(reply);
  } else if (call == "watch") {
    if (request.value("flows", json(false)) != json(true)) {
      reply.fail(ControlError::badArgument,
                 "\"flows\" is not true; there is nothing else to watch");
      return;
    }
    if (watch_.isWatching(reply)) {
      reply.fail(ControlError::badArgument, "this connection watches the flows already");
      return;
    }
    reply.succeed();
    watch_.add(reply);
  } else {
    reply.fail(ControlError::unknownCall, fmt::format("there is no call \"{}\"", call));
  }
}

void Session::replyStatus(const ControlServer::Reply& reply) const {
  static constexpr std::array<std::string_view, 6> names = {"idle",   "starting", "running",
                                                            "failed", "asleep",   "stopped"};
  const auto provider = this->provider();
  json status;
  {
    const std::scoped_lock lock(mutex_);
    status["state"] = names.at(static_cast<std::size_t>(state_));
    status["since"] = fmt::format("{:%Y-%m-%dT%H:%M:%SZ}",
                                  fmt::gmtime(std::chrono::system_clock::to_time_t(since_)));
  }
  const auto interface = provider != nullptr ? provider->directlyInterface() : std::nullopt;
  status["pid"] = ::getpid();
  status["version"] = TANDOR_VERSION;
  status["directInterface"] = interface ? json(interface->name) : json();
  const auto counts = registry_.counts();
  status["flows"] = {{"open", counts.open},
                     {"taken", counts.taken},
                     {"left", counts.left},
                     {"refused", counts.refused}};
  status["bytes"] = {{"in", counts.bytesIn}, {"out", counts.bytesOut}};
  status["rulesRestored"] = rulesRestored_.load(std::memory_order_relaxed);
  reply.succeed({{"status", status}});
}

void Session::replyFlows(const ControlServer::Reply& reply) {
  reply.succeed("flows", FlowList(registry_));
}

void Session::withProvider(const ControlServer::Reply& reply,
                           std::move_only_function<void(NETransparentProxyProvider&)> operation) {
  queue_->async([this, reply, operation = std::move(operation)]() mutable {
    const auto provider = this->provider();
    if (provider == nullptr) {
      failNotRunning(reply);
    } else {
      operation(*provider);
    }
  });
}

void Session::start(std::shared_ptr<const NEVPNProtocol> configuration,
                    const ControlServer::Reply& reply) {
  const State before = state();
  if (before == State::starting || before == State::running || before == State::asleep) {
    reply.fail(ControlError::alreadyRunning, "the provider is running already; stop it first");
    return;
  }
  const auto provider = factory_();
  provider->attach(*this, std::move(configuration));
  {
    const std::scoped_lock lock(mutex_);
    provider_ = provider;
  }
  enter(State::starting);
  provider->startProxy({}, [this, reply](const std::optional<NSError>& error) {
    enter(error ? State::failed : State::running);
    if (error) {
      reply.fail(error->code(), error->description());
    } else {
      reply.succeed();
    }
  });
}

bool Session::stop(NEProviderStopReason reason, State then) {
  std::unique_lock lock(mutex_);
  const auto provider = std::exchange(provider_, nullptr);
  if (provider == nullptr && state_ != State::failed) return false;
  const auto hasStopped = std::make_shared<bool>(provider == nullptr);  // guarded by mutex_
  lock.unlock();
  if (provider != nullptr) {
    GlobalQueue::shared().async([this, provider, reason, hasStopped] {
      provider->stopProxy(reason, [this, hasStopped] {
        const std::scoped_lock progress(mutex_);
        *hasStopped = true;
        stopProgress_.notify_all();
      });
    });
  }
  // It takes no flow any more when it tells its host application, which may not answer: no rule
  // stays in place for that.
  lock.lock();
  stopProgress_.wait_for(lock, usualStop, [&] { return *hasStopped; });
  lock.unlock();
  interception_ = nullptr;
  lock.lock();
  stopProgress_.wait(lock, [&] { return *hasStopped || isHurried_; });
  lock.unlock();
  enter(then);
  return true;
}

void Session::rulesLost() {
  // As long as the guard waits for this to return, it is the interception of this provider.
  queue_->async([this, provider = this->provider()] {
    if (provider != nullptr && provider == this->provider())
      static_cast<void>(stop(NEProviderStopReason::providerFailed, State::failed));
  });
}

void Session::awaitSignal() {
  signals_.async_wait([this](const asio::error_code& error, int signal) {
    if (error) return;
    awaitSignal();
    if (std::exchange(isTerminating_, true)) {
      // The provider takes its time to tell its host; whoever asks twice does not want to wait.
      // What is to be removed is removed all the same.
      const std::scoped_lock lock(mutex_);
      isHurried_ = true;
      stopProgress_.notify_all();
      return;
    }
    const bool isByUser = signal == SIGINT || signal == SIGQUIT;
    terminate(isByUser ? NEProviderStopReason::userInitiated
                       : NEProviderStopReason::providerDisabled);
  });
}

void Session::terminate(NEProviderStopReason reason) {
  ::sd_notify(0, "STOPPING=1");
  queue_->async([this, reason] {
    static_cast<void>(stop(reason, State::stopped));
    // Threads still run, so static objects are left alone.
    std::quick_exit(EXIT_SUCCESS);
  });
}

}  // namespace tandor
