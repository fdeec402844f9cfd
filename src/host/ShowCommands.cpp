// The commands that show what is there.

#include <algorithm>
#include <chrono>
#include <ctime>
#include <set>
#include <unistd.h>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <nlohmann/json.hpp>

#include "host/Commands.h"
#include "host/FlowText.h"
#include "host/InternetSockets.h"
#include "host/JSONValues.h"
#include "host/Provider.h"
#include "host/SentConfiguration.h"
#include "host/Signals.h"

namespace tandor::host {

using nlohmann::json;

namespace {

/// What was sent, an application a line.
std::string describeValues(const ProviderValues& values) {
  const auto configuration = makeConfiguration(settingsOf(values), ApplicationResolver({}));
  if (!configuration) return "unknown";
  std::string text = printable(configuration->description());
  for (const ResolvedApplication& app : configuration->apps)
    text += "\n               " + printable(app.identifier);
  return text;
}

/// A point in time with the span since then.
std::string since(const std::string& text) {
  std::tm fields{};
  if (::strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &fields) == nullptr) return text;
  const auto then = std::chrono::system_clock::from_time_t(::timegm(&fields));
  const auto span = std::chrono::system_clock::now() - then;
  return fmt::format("{} ({})", text,
                     timeSpan(std::chrono::duration_cast<std::chrono::seconds>(span)));
}

std::uint64_t count(const json& group, std::string_view key) {
  return static_cast<std::uint64_t>(
      std::max<std::int64_t>(0, numberMember(group, key).value_or(0)));
}

void printStatus(const Provider& provider, const std::optional<ProviderValues>& sent,
                 Output& output) {
  const json& whole = provider.status.whole;
  const auto row = [&](std::string_view name, std::string_view value) {
    output.line(
        fmt::format("{}{}", output.paint(Output::Colour::dim, fmt::format("{:<15}", name)), value));
  };
  const bool isRunning = provider.status.state == "running";
  row("state", output.paint(isRunning ? Output::Colour::green : Output::Colour::yellow,
                            printable(provider.status.state)));
  row("since", printable(since(textMember(whole, "since").value_or("?"))));
  row("provider", printable(fmt::format("version {}, process {}", provider.status.version,
                                        provider.status.pid)));
  row("control", printable(provider.controlPath));
  row("direct over",
      printable(textMember(whole, "directInterface")
                    .value_or(isRunning ? "no physical interface: by the machine's routes" : "-")));
  const json flows = whole.value("flows", json::object());
  row("flows", fmt::format("{} open, {} taken, {} left, {} refused", count(flows, "open"),
                           count(flows, "taken"), count(flows, "left"), count(flows, "refused")));
  const json bytes = whole.value("bytes", json::object());
  row("bytes",
      fmt::format("{} in, {} out", byteCount(count(bytes, "in")), byteCount(count(bytes, "out"))));
  if (sent) row("configuration", describeValues(*sent));
}

/// Prints the live flows and then every event until the provider goes, or the user wants no more.
Outcome watchFlows(EventLoop& loop, const Provider& provider, const Options& options,
                   Output& output) {
  bool isEndWanted = false;
  const EndSignals signals(loop, [&] { isEndWanted = true; });
  std::set<std::int64_t> known;
  std::vector<json> early;
  const auto show = [&](const json& event) {
    if (options.showsAll || !isAboutLeftFlow(event)) output.line(describeEvent(event, output));
    output.value(event);
  };
  // What happens while the list is on its way may be in the list already.
  provider.client->setEventHandler([&](const json& event) { early.push_back(event); });
  if (auto watched = provider.client->call("watch", {{"flows", true}}); !watched)
    return std::unexpected(watched.error());
  const auto reply = provider.client->call("flows");
  if (!reply) return std::unexpected(reply.error());
  for (const json& flow : reply->value("flows", json::array())) {
    known.insert(numberMember(flow, "id").value_or(0));
    show({{"event", "open"}, {"flow", flow}});
  }
  for (const json& event : early) {
    const bool isOpen = textMember(event, "event") == "open";
    const json flow = event.value("flow", json::object());
    if (!isOpen || !known.contains(numberMember(flow, "id").value_or(0))) show(event);
  }
  provider.client->setEventHandler(show);
  static_cast<void>(loop.runUntil(
      [&] { return isEndWanted || !provider.client->isConnected() || !output.isRead(); }));
  if (isEndWanted || !output.isRead()) return exitDone;
  return fail("the provider has ended", "flows go their native way; start it again");
}

}  // namespace

Outcome statusCommand(const Options& options, Output& output) {
  EventLoop loop;
  const auto provider = Provider::connect(loop, options.control);
  if (!provider) return std::unexpected(provider.error());
  const auto sent = lastSent(provider->controlPath, provider->status.pid);
  json value = provider->status.whole;
  value["control"] = provider->controlPath;
  value["configuration"] = sent ? json(*sent) : json();
  output.value(value);
  if (!output.isJSON()) printStatus(*provider, sent, output);
  if (auto same = provider->checkVersion(); !same) output.failure(same.error());
  return exitDone;
}

Outcome flowsCommand(const Options& options, Output& output) {
  EventLoop loop;
  const auto provider = Provider::connect(loop, options.control);
  if (!provider) return std::unexpected(provider.error());
  if (options.watches) return watchFlows(loop, *provider, options, output);
  const auto reply = provider->client->call("flows");
  if (!reply) return std::unexpected(reply.error());
  const json flows = reply->value("flows", json::array());
  output.value(flows);
  const Table table = flowTable(flows);
  if (table.isEmpty()) {
    output.line("no flow is taken at the moment");
  } else {
    table.print(output);
  }
  return exitDone;
}

Outcome appsCommand(const Options& /*options*/, Output& output) {
  constexpr std::size_t mostShown = 5;
  const RunningApplications running = findRunningApplications();
  json list = json::array();
  Table table({"APPLICATION", "TCP", "UDP", "PROCESSES"});
  for (const auto& [identifier, application] : running.applications) {
    list.push_back({{"identifier", identifier},
                    {"pids", application.pids},
                    {"sockets", {{"tcp", application.tcp}, {"udp", application.udp}}}});
    const std::size_t shown = std::min(application.pids.size(), mostShown);
    std::string pids = fmt::format(
        "{}", fmt::join(application.pids.begin(),
                        application.pids.begin() + static_cast<std::ptrdiff_t>(shown), " "));
    if (shown < application.pids.size())
      pids += fmt::format(" and {} more", application.pids.size() - shown);
    table.add({identifier, std::to_string(application.tcp), std::to_string(application.udp), pids});
  }
  output.value(list);
  if (table.isEmpty()) {
    output.line("no application has internet sockets");
  } else {
    table.print(output);
  }
  if (running.unreadable > 0 && ::geteuid() != 0) {
    Output::note(fmt::format("{} processes of other users were not looked into; use sudo",
                             running.unreadable));
  }
  return exitDone;
}

}  // namespace tandor::host
