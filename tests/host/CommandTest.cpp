// The command itself, as its users run it: against a provider that touches nothing of the machine,
// and once against the real one, which is left idle.

#include <algorithm>
#include <csignal>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "host/FakeProvider.h"
#include "host/Support.h"

namespace tandor::host::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using Arguments = std::vector<std::string>;

class CommandTest : public testing::Test {
 protected:
  CommandTest() {
    fs::create_directory(folder_ / "bin");
    fs::copy_file(TANDOR_PROGRAM, folder_ / "bin/tandor");  // which looks beside itself
    fs::copy_file(TANDOR_FAKE_PROVIDER, folder_ / "bin/tandor-provider");
  }

  [[nodiscard]] Arguments toProvider(Arguments arguments) const {
    arguments.insert(arguments.end(), {"--control", control_});
    return arguments;
  }
  /// Runs the command to its end; keeps what it printed.
  int tandor(const Arguments& arguments) {
    Tandor command(toProvider(arguments), settings_);
    const int code = command.finish();
    output_ = command.output();
    errors_ = command.errors();
    values_ = command.values();
    return code;
  }
  /// The folders that the process has made for its sockets, and has not removed.
  [[nodiscard]] static std::vector<fs::path> foldersOf(pid_t pid, const fs::path& place) {
    std::vector<fs::path> found;
    for (const auto& entry : fs::directory_iterator(place))
      if (entry.path().filename().string().starts_with("tandor-") &&
          entry.path().string().contains("-" + std::to_string(pid) + "-"))
        found.push_back(entry.path());
    return found;
  }

  const TemporaryFolder folder_;
  const std::string control_ = folder_ / "control.sock";
  Tandor::Settings settings_{.program = folder_ / "bin/tandor",
                             .environment = {{"FAKE_CLEANUP", folder_ / "cleaned"}}};
  std::string output_;
  std::string errors_;
  std::vector<json> values_;
  const Arguments run_ = {"run",          "--mode", "webProxy",   "--proxy",
                          "192.0.2.1:80", "--app",  "id:/bin/one"};
};

/// Only root may start a provider of its own.
class RunTest : public CommandTest {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
  }
};

TEST_F(CommandTest, ExitCodesAndAdviceTellWhatWentWrong) {
  folder_.write("broken.json", "{\n\"mode\": 1}");
  const Arguments webProxy = {"start", "--mode", "webProxy"};
  const auto with = [](Arguments first, const Arguments& more) {
    first.insert(first.end(), more.begin(), more.end());
    return first;
  };
  const struct {
    Arguments arguments;
    int code;
    std::string_view text;  // in what it prints
  } cases[] = {
      {{"--help"}, 0, "directly over a physical interface"},
      {{"run", "--help"}, 0, "--proxy HOST:PORT"},
      {{"--version"}, 0, "tandor " TANDOR_VERSION},
      {{}, 2, "Usage"},
      {{"nonsense"}, 2, "tandor --help"},
      {{"start", "--mode", "proxy"}, 2, "webProxy"},
      {{"flows", "--mode", "webProxy"}, 2, "tandor flows --help"},
      {{"completions", "tcsh"}, 2, "bash"},
      {with(webProxy, {"--app", "id:a"}), 2, "--proxy HOST:PORT"},
      {with(webProxy, {"--app", "id:a", "--proxy", "p"}), 2, "the port is missing"},
      {with(webProxy, {"--app", "no-such-application", "--proxy", "p:1"}), 2, "no application"},
      {{"start", "--config", folder_ / "broken.json"}, 2, "broken.json:2: \"mode\""},
      {{"start", "--config", folder_ / "none.json"}, 2, "none.json"},
      {{"start", "--mode", "tunnelWhiteList"}, 1, "sudo tandor run"},
      {{"update", "--mode", "tunnelWhiteList"}, 1, "no provider listens"},
      {{"update"}, 2, "nothing to update"},
      {{"stop"}, 1, "no provider listens"},
      {{"status"}, 1, "no provider listens"},
      {{"flows", "--watch"}, 1, "no provider listens"},
      {{"status", "--json"}, 1, R"("advice":"start one)"},
  };
  for (const auto& [arguments, code, text] : cases) {
    EXPECT_EQ(tandor(arguments), code) << text;
    EXPECT_TRUE((output_ + errors_).contains(text)) << text << " not in: " << output_ << errors_;
    EXPECT_EQ(code == 0, errors_.empty()) << errors_;
  }
}

TEST_F(CommandTest, StartUpdateSleepWakeAndStopReachTheProvider) {
  const FakeProvider fake(control_);
  ASSERT_EQ(tandor({"start", "--mode", "tunnelWhiteList", "--app", "id:/bin/one", "--debug"}), 0)
      << errors_;
  EXPECT_EQ(errors_, "");
  const json values =
      fake.requests("startProxy").at(0).at("protocolConfiguration").at("providerConfiguration");
  EXPECT_EQ(values.at("appIds"), R"(["/bin/one"])");
  EXPECT_TRUE(values.contains("socketPath"));
  // Nobody listens any more when the command has ended, and the provider knows.
  EXPECT_FALSE(fake.lastUpdate().contains("socketPath"));
  EXPECT_TRUE(std::ranges::none_of(fs::directory_iterator(folder_.path()), [](const auto& entry) {
    return entry.path().filename().string().starts_with("tandor-");
  }));

  ASSERT_EQ(tandor({"update", "--app", "id:/bin/two", "--app", "id:/bin/three"}), 0) << errors_;
  EXPECT_EQ(fake.lastUpdate(), (json{{"appIds", R"(["/bin/two","/bin/three"])"},
                                     {"mode", "tunnelWhiteList"},
                                     {"connectReply", "status"},
                                     {"debug", "true"},
                                     {"enable", "true"}}));
  folder_.write("off.json", "{\"enable\": false}");
  ASSERT_EQ(tandor({"update", "--config", folder_ / "off.json", "--no-debug", "--json"}), 0);
  EXPECT_EQ(fake.lastUpdate().at("enable"), "false");
  EXPECT_EQ(fake.lastUpdate().at("debug"), "false");
  EXPECT_EQ(values_.at(0).at("configuration").at("apps").at(1).at("identifier"), "/bin/three");

  EXPECT_EQ(tandor({"start", "--mode", "tunnelWhiteList"}), 1);
  EXPECT_TRUE(errors_.contains("a provider is running already")) << errors_;
  EXPECT_EQ(fake.requests("startProxy").size(), 1);
  EXPECT_EQ(tandor({"sleep"}), 0);
  EXPECT_EQ(fake.requests("sleep").size(), 1);
  EXPECT_EQ(tandor({"wake", "--json"}), 0);
  EXPECT_EQ(fake.requests("wake").size(), 1);
  EXPECT_EQ(values_.at(0).at("state"), "running");
  EXPECT_EQ(tandor({"stop"}), 0);
  EXPECT_EQ(fake.requests("stopProxy").at(0).at("reason"), 1);
  EXPECT_FALSE(fs::exists(control_ + ".sent"));
  EXPECT_EQ(tandor({"stop"}), 1);
}

TEST_F(CommandTest, RefusesAProviderOfAnotherVersionAndTellsWhyAStartFailed) {
  FakeProvider::Manner older;
  older.version = "0.0.1";
  auto fake = std::make_unique<FakeProvider>(control_, older);
  const Arguments start = {"start", "--mode", "tunnelWhiteList"};
  EXPECT_EQ(tandor(start), 1);
  EXPECT_TRUE(errors_.contains("version 0.0.1")) << errors_;
  EXPECT_TRUE(fake->requests("startProxy").empty());

  fake = nullptr;
  FakeProvider::Manner failing;
  failing.startError = "no xt_TPROXY";
  fake = std::make_unique<FakeProvider>(control_, failing);
  EXPECT_EQ(tandor(start), 1);
  EXPECT_TRUE(errors_.contains("no xt_TPROXY")) << errors_;
  EXPECT_FALSE(fs::exists(control_ + ".sent"));
}

TEST_F(CommandTest, StatusAndFlowsShowForPeopleAndForPrograms) {
  const FakeProvider fake(control_);
  ASSERT_EQ(tandor({"start", "--mode", "tunnelWhiteList", "--app", "id:/bin/\x1b[2J"}), 0);
  EXPECT_EQ(tandor({"status"}), 0);
  for (const char* text : {"running", TANDOR_VERSION, "tunnelWhiteList", "/bin/\\x1b[2J"})
    EXPECT_TRUE(output_.contains(text)) << text << " not in: " << output_;
  EXPECT_FALSE(output_.contains('\x1b'));
  EXPECT_EQ(tandor({"status", "--json"}), 0);
  EXPECT_EQ(values_.at(0).at("state"), "running");
  EXPECT_EQ(values_.at(0).at("configuration").at("mode"), "tunnelWhiteList");
  EXPECT_EQ(tandor({"flows"}), 0);
  EXPECT_TRUE(output_.contains("/usr/bin/first")) << output_;
  EXPECT_EQ(tandor({"flows", "--json"}), 0);
  EXPECT_EQ(values_.at(0).at(0).at("id"), 7);

  settings_.hasTerminal = true;
  EXPECT_EQ(tandor({"status"}), 0);
  EXPECT_TRUE(output_.contains("\x1b[32mrunning\x1b[0m")) << output_;
  settings_.environment.emplace_back("NO_COLOR", "1");
  EXPECT_EQ(tandor({"status"}), 0);
  EXPECT_FALSE(output_.contains('\x1b')) << output_;
}

TEST_F(CommandTest, WatchShowsWhatHappensUntilTheUserOrTheProviderEnds) {
  auto fake = std::make_unique<FakeProvider>(control_);
  const auto event = [](const char* kind, int id, const char* app) {
    return json{{"event", kind},
                {"flow",
                 {{"id", id},
                  {"app", app},
                  {"protocol", "tcp"},
                  {"destination", "192.0.2.7:443"},
                  {"outbound", "192.0.2.1:80"},
                  {"bytesIn", 2048},
                  {"bytesOut", 10}}}};
  };
  Tandor text(toProvider({"flows", "--watch"}), settings_);
  Tandor all(toProvider({"flows", "--watch", "--all"}), settings_);
  Tandor values(toProvider({"flows", "--watch", "--json"}), settings_);
  for (Tandor* watch : {&text, &all, &values}) ASSERT_TRUE(watch->awaitOutput("/usr/bin/first"));
  fake->push(event("left", 0, "/bin/native"));
  fake->push({{"event", "gap"}, {"lost", 3}});
  fake->push(event("open", 8, "/bin/second"));
  fake->push(event("close", 8, "/bin/second"));
  ASSERT_TRUE(text.awaitOutput("2.0 kB in, 10 B out"));
  text.send(SIGINT);
  EXPECT_EQ(text.finish(), 0);
  EXPECT_TRUE(text.output().contains("tcp 192.0.2.7:443 via 192.0.2.1:80"));
  EXPECT_TRUE(text.output().contains("3 events were lost"));
  EXPECT_FALSE(text.output().contains("/bin/native"));

  ASSERT_TRUE(all.awaitOutput("2.0 kB in"));
  EXPECT_TRUE(all.output().contains("/bin/native"));
  ASSERT_TRUE(values.awaitOutput("close"));
  fake = nullptr;
  EXPECT_EQ(all.finish(), 1);
  EXPECT_TRUE(all.errors().contains("the provider has ended"));
  EXPECT_EQ(values.finish(), 1);
  ASSERT_EQ(values.values().size(), 5);
  EXPECT_EQ(values.values()[3], event("open", 8, "/bin/second"));
}

TEST_F(RunTest, CarriesAProviderFromItsStartToItsEnd) {
  Tandor run(toProvider(run_), settings_);
  ASSERT_TRUE(run.awaitOutput("Ctrl-C stops it")) << run.errors();
  EXPECT_TRUE(run.output().contains("started"));
  EXPECT_TRUE(run.output().contains("webProxy through 192.0.2.1:80 for 1 application"));
  EXPECT_EQ(tandor({"update", "--app", "id:/bin/two"}), 0) << errors_;
  EXPECT_EQ(tandor({"status", "--json"}), 0);
  EXPECT_EQ(values_.at(0).at("state"), "running");
  EXPECT_EQ(values_.at(0).at("configuration").at("appIds"), "[\"/bin/two\"]");
  EXPECT_EQ(values_.at(0).at("configuration").at("proxyPort"), "80");
  run.send(SIGINT);
  EXPECT_EQ(run.finish(), 0) << run.errors();
  EXPECT_TRUE(run.output().contains("stopped (as it was told)"));
  EXPECT_EQ(run.errors(), "");
  EXPECT_FALSE(fs::exists(control_));
  EXPECT_FALSE(fs::exists(control_ + ".sent"));
  EXPECT_FALSE(fs::exists(folder_ / "cleaned"));  // it ended in order
  EXPECT_TRUE(foldersOf(run.pid(), "/run").empty());
}

TEST_F(RunTest, OthersFindItWithoutBeingToldWhereItIs) {
  settings_.environment.emplace_back("RUNTIME_DIRECTORY", folder_ / "none");
  auto arguments = run_;
  arguments.emplace_back("--json");
  Tandor run(arguments, settings_);
  ASSERT_TRUE(run.awaitOutput("\"started\"")) << run.errors();
  Tandor stop({"stop"}, settings_);
  EXPECT_EQ(stop.finish(), 0) << stop.errors();
  EXPECT_EQ(run.finish(), 0) << run.errors();
  EXPECT_TRUE(run.errors().contains("stopped by somebody else"));
  std::vector<std::string> events;
  for (const json& value : run.values()) events.push_back(value.at("event"));
  EXPECT_EQ(events, (Arguments{"configured", "started", "stopped"}));
}

TEST_F(RunTest, StopsAProviderThatItFoundAndLeavesItsProcess) {
  const FakeProvider fake(control_);
  Tandor run(toProvider(run_), settings_);
  ASSERT_TRUE(run.awaitOutput("Ctrl-C stops it")) << run.errors();
  EXPECT_EQ(tandor(run_), 1);  // a second one has nothing to run
  EXPECT_TRUE(errors_.contains("a provider is running already")) << errors_;
  run.send(SIGTERM);
  EXPECT_EQ(run.finish(), 0) << run.errors();
  EXPECT_EQ(fake.requests("stopProxy").size(), 1);
  EXPECT_TRUE(foldersOf(run.pid(), folder_.path()).empty());
}

TEST_F(RunTest, TellsHowItsProviderFailedAndCleansUpBehindIt) {
  const struct {
    std::string manner;
    std::string_view error;
    bool needsCleaning;
  } cases[] = {{"broken", "  something is very wrong", true},
               {"fails", "the kernel lacks what is needed", false},
               {"dies", "by signal 9", true}};
  for (const auto& [manner, error, needsCleaning] : cases) {
    settings_.environment = {{"FAKE_CLEANUP", folder_ / manner}, {"FAKE_MANNER", manner}};
    Tandor run(run_, settings_);
    EXPECT_EQ(run.finish(), 1) << manner;
    EXPECT_TRUE(run.errors().contains(error)) << run.errors();
    EXPECT_EQ(fs::exists(folder_ / manner), needsCleaning) << manner;
    EXPECT_TRUE(foldersOf(run.pid(), "/run").empty());
  }
}

TEST_F(RunTest, LeavesNothingForLongWhenKilled) {
  Tandor run(run_, settings_);
  ASSERT_TRUE(run.awaitOutput("Ctrl-C stops it")) << run.errors();
  run.send(SIGKILL);
  EXPECT_EQ(run.finish(), 128 + SIGKILL);
  const auto left = foldersOf(run.pid(), "/run");
  ASSERT_EQ(left.size(), 1);
  // Its provider ends by itself.
  EXPECT_TRUE(eventually([&] { return !fs::exists(left.front() / "control.sock"); }));
  Tandor next(run_, settings_);
  ASSERT_TRUE(next.awaitOutput("Ctrl-C stops it")) << next.errors();
  EXPECT_FALSE(fs::exists(left.front()));
  next.send(SIGINT);
  EXPECT_EQ(next.finish(), 0);

  const FakeProvider fake(control_);
  Tandor attached(toProvider(run_), settings_);
  ASSERT_TRUE(attached.awaitOutput("Ctrl-C stops it")) << attached.errors();
  attached.send(SIGKILL);
  EXPECT_EQ(attached.finish(), 128 + SIGKILL);
  EXPECT_EQ(foldersOf(attached.pid(), folder_.path()).size(), 1);
  ASSERT_EQ(tandor({"stop"}), 0) << errors_;
  ASSERT_EQ(tandor({"start", "--mode", "tunnelWhiteList"}), 0) << errors_;
  EXPECT_TRUE(foldersOf(attached.pid(), folder_.path()).empty());
}

TEST_F(CommandTest, AppsListsWhoHasSockets) {
  const FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ASSERT_TRUE(socket.isOpen());
  sockaddr_in address{};
  address.sin_family = AF_INET;
  ASSERT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(tandor({"apps", "--json"}), 0);
  const std::string self = fs::read_symlink("/proc/self/exe");
  const json& list = values_.at(0);
  const auto found =
      std::ranges::find_if(list, [&](const json& app) { return app.at("identifier") == self; });
  ASSERT_NE(found, list.end());
  EXPECT_EQ(found->at("sockets").at("udp"), 1);
  EXPECT_EQ(found->at("pids"), json::array({::getpid()}));
  EXPECT_EQ(tandor({"apps"}), 0);
  EXPECT_TRUE(output_.contains(self));
}

TEST_F(CommandTest, DoctorLooksAtEverythingAndChangesNothing) {
  const FakeProvider fake(control_);
  const int code = tandor({"doctor", "--json"});
  const json& report = values_.at(0);
  EXPECT_EQ(report.at("ok"), code == 0);
  std::map<std::string, json> checks;
  for (const json& check : report.at("checks")) checks[check.at("check")] = check;
  for (const char* name : {"privileges", "provider program", "iptables-restore", "port 15001",
                           "packet queue 77", "default route", "packet marks"})
    EXPECT_TRUE(checks.contains(name)) << name;
  EXPECT_EQ(checks["control socket"].at("result"), "ok");
  EXPECT_EQ(checks["provider program"].at("text"), folder_ / "bin/tandor-provider");
  for (const auto& [name, check] : checks)
    EXPECT_EQ(check.at("advice").get<std::string>().empty(), check.at("result") == "ok") << name;

  fs::remove(folder_ / "bin/tandor-provider");
  settings_.environment.emplace_back("PATH", "/none");
  EXPECT_EQ(tandor({"doctor"}), 1);
}

TEST_F(CommandTest, CompletionsCompleteInBash) {
  const auto complete = [&](const std::string& line) {
    // The last word is what is being completed.
    auto bash = outputOf({"bash", "-c",
                          "source <(" + settings_.program +
                              " completions bash) || exit\n"
                              "COMP_WORDS=(" +
                              line +
                              "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n"
                              "compopt() { :; }; _tandor; echo \"${COMPREPLY[*]}\""});
    return bash.value_or("failed");
  };
  const struct {
    std::string line;
    std::string expected;
  } cases[] = {
      {"tandor sta", "start status\n"},
      {"tandor start --mode d", "directlyWhiteList\n"},
      {"tandor --json run --mode ''", "webProxy directlyWhiteList tunnelWhiteList\n"},
      {"tandor update --pro", "--proxy\n"},
      {"tandor flows --w", "--watch\n"},
      {"tandor stop --mo", "\n"},
      {"tandor run --app tande", "\n"},
      {"tandor start --config " + (folder_ / "bi"), (folder_ / "bin") + "\n"},
  };
  for (const auto& [line, expected] : cases) EXPECT_EQ(complete(line), expected) << line;
  for (const std::string shell : {"zsh", "fish"}) {
    EXPECT_EQ(tandor({"completions", shell}), 0);
    EXPECT_TRUE(output_.contains("tunnelWhiteList")) << shell;
  }
}

TEST_F(CommandTest, DemoRunsTheInstalledScript) {
  EXPECT_EQ(tandor({"demo"}), 1);
  EXPECT_TRUE(errors_.contains("the demo is not installed")) << errors_;
  folder_.write("share/tandor/demo", "#!/bin/sh\necho shown; exit 3\n", true);
  Tandor demo({"demo"}, settings_);
  EXPECT_EQ(demo.finish(), 3);
  EXPECT_EQ(demo.output(), "shown\n");
}

TEST_F(CommandTest, UnderstandsTheRealProvider) {
  auto provider = ChildProcess::start({TANDOR_PROVIDER, "--control", control_}, {});
  ASSERT_TRUE(provider.has_value());
  ASSERT_TRUE(eventually([&] { return tandor({"status"}) == 0; })) << errors_;
  EXPECT_TRUE(output_.contains("idle")) << output_;
  EXPECT_EQ(errors_, "");
  EXPECT_EQ(tandor({"flows"}), 0);
  EXPECT_EQ(output_, "no flow is taken at the moment\n");
  for (const Arguments& change : {Arguments{"stop"}, {"update", "--mode", "tunnelWhiteList"}}) {
    EXPECT_EQ(tandor(change), 1);
    EXPECT_TRUE(errors_.contains("no provider is running")) << errors_;
  }
  Tandor watch(toProvider({"flows", "--watch", "--json"}), settings_);
  provider->send(SIGTERM);
  EXPECT_EQ(provider->wait(patience), 0);
  EXPECT_EQ(watch.finish(), 1);
}

}  // namespace
}  // namespace tandor::host::test
