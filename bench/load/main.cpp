#include <arpa/inet.h>
#include <functional>
#include <map>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "load/Client.h"
#include "load/Protocol.h"
#include "load/Server.h"

namespace {

using namespace tandor::load;

sockaddr_in parseAddress(const std::string& text) {
  const std::size_t colon = text.find(':');
  sockaddr_in address{};
  address.sin_family = AF_INET;
  if (colon == std::string::npos ||
      ::inet_pton(AF_INET, text.substr(0, colon).c_str(), &address.sin_addr) != 1)
    throw CLI::ValidationError(text + " is no ADDRESS:PORT");
  address.sin_port = htons(static_cast<std::uint16_t>(std::stoi(text.substr(colon + 1))));
  return address;
}

const std::map<std::string, std::function<std::string(const ClientOptions&)>> cases = {
    {"check", runCheck},
    {"bulk-down", [](const ClientOptions& options) { return runBulk(options, false); }},
    {"bulk-up", [](const ClientOptions& options) { return runBulk(options, true); }},
    {"storm", runStorm},
    {"churn", runChurn},
    {"setup", runSetUp},
    {"echo", runEcho},
    {"idle", runIdle},
    {"datagram-echo", runDatagramEcho},
    {"datagram-sink", runDatagramSink},
};

}  // namespace

int main(int argc, char** argv) {
  CLI::App program("Makes the load of the benchmark and takes it");
  program.require_subcommand(1);

  ServerOptions serverOptions;
  auto* server = program.add_subcommand("server");
  server->add_option("--counters", serverOptions.countersPath)->required();

  std::string datagramsAt = "0.0.0.0";
  server->add_option("--datagrams-at", datagramsAt)->check(CLI::ValidIPV4);

  ClientOptions options;
  std::string what;
  std::vector<std::string> destinations;
  double seconds = 1;
  double warmUp = 0.3;
  auto* client = program.add_subcommand("client");
  client->add_option("case", what)->required()->check(CLI::IsMember(cases));
  client->add_option("--hello", options.helloPath)->default_val(TANDOR_HELLO);
  client->add_option("--counters", options.countersPath)->required();
  client->add_option("--to", destinations)->required();
  client->add_flag("--connect", options.speaksConnect);
  client->add_option("--flows", options.flows);
  client->add_option("--size", options.size);
  client->add_option("--rate", options.rate);
  client->add_option("--seconds", seconds);
  client->add_option("--warm-up", warmUp);
  client->add_option("--watch", options.watched);
  CLI11_PARSE(program, argc, argv);

  ::inet_pton(AF_INET, datagramsAt.c_str(), &serverOptions.datagramsAt);
  if (server->parsed()) serve(serverOptions);
  const auto milliseconds = [](double time) {
    return std::chrono::milliseconds(static_cast<std::int64_t>(time * 1000));
  };
  options.time = milliseconds(seconds);
  options.warmUp = milliseconds(warmUp);
  try {
    for (const std::string& destination : destinations)
      options.destinations.push_back(parseAddress(destination));
  } catch (const std::exception& error) {
    fmt::print(stderr, "tandor-load: {}\n", error.what());
    return 2;
  }
  fmt::print("{{{}}}\n", cases.at(what)(options));
}
