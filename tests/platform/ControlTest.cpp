#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <spawn.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "ipc/AppMessage.h"
#include "ipc/BigEndian.h"
#include "platform/Support.h"
#include "platform/Surroundings.h"
#include "platform/foundation/Base64.h"

namespace tandor::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
namespace files = std::filesystem;

sockaddr_un unixAddress(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

/// A stream socket, bound to `path` and listening, or connected to it; closed if that fails.
FileDescriptor unixSocket(const std::string& path, bool isListening) {
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket.isOpen()) return socket;
  const sockaddr_un address = unixAddress(path);
  const auto* target = reinterpret_cast<const sockaddr*>(&address);
  const int result =
      isListening ? ::bind(socket.get(), target, sizeof address) | ::listen(socket.get(), SOMAXCONN)
                  : ::connect(socket.get(), target, sizeof address);
  return result == 0 ? std::move(socket) : FileDescriptor();
}

/// A client of the control socket.
class Control {
 public:
  explicit Control(const std::string& path) : peer_(unixSocket(path, false)) {}

  void send(const std::string& text) const { peer_.send(text); }
  /// The next line as JSON; a discarded value when the socket ends instead.
  [[nodiscard]] json receive() const {
    std::string line;
    for (std::string byte; (byte = peer_.receive(1)) != "\n"; line += byte)
      if (byte.empty()) break;
    return json::parse(line, nullptr, false);
  }
  [[nodiscard]] json call(const json& request) const {
    send(request.dump() + "\n");
    return receive();
  }
  /// The code of the call's error; nothing when there is none.
  [[nodiscard]] std::optional<int> errorOf(const json& request) const {
    const json error = call(request).at("error");
    return error.is_null() ? std::nullopt : std::optional(error.at("code").get<int>());
  }
  [[nodiscard]] std::string state() const {
    return call({{"call", "status"}}).at("status").at("state");
  }
  [[nodiscard]] std::string receiveAll() const { return peer_.receiveAll().text; }
  void finishSending() const { peer_.finishSending(); }

 private:
  Peer peer_;
};

/// The host application's side of the status socket.
class HostApplication {
 public:
  explicit HostApplication(const std::string& path) : socket_(unixSocket(path, true)) {}

  /// Accepts a client without answering it yet.
  [[nodiscard]] Peer accept() const {
    return Peer(FileDescriptor(::accept4(socket_.descriptor(), nullptr, nullptr, SOCK_CLOEXEC)));
  }
  /// Takes one message over; its content behind its name and a blank.
  [[nodiscard]] static std::string receive(const Peer& client) {
    for (const char* greeting : {"ab", "abcd"}) {
      client.send(greeting);
      EXPECT_EQ(client.receive(1), std::string(1, '\0'));
    }
    const std::string payload = client.receiveAll().text;
    const auto number = [&](std::size_t offset) {
      const std::string bytes = payload.substr(offset, 8);
      return readBigEndian<std::uint64_t>(Data::copying(bytes).bytes());
    };
    constexpr std::size_t nameStart = 64;
    const std::size_t nameLength = number(nameStart - 8);
    EXPECT_EQ(number(nameStart + nameLength), payload.size() - nameStart - nameLength - 8);
    return payload.substr(nameStart, nameLength) + " " + payload.substr(nameStart + nameLength + 8);
  }

 private:
  Peer socket_;
};

std::string stopped(const std::string& reason) {
  return std::string("ApiExtensionProxyStatusCallback \0stop proxy with reason:", 56) + reason;
}

/// The daemon as a process of its own, in a folder of its own.
class ControlTest : public DescriptorTest {
 protected:
  /// Whether a start may install its rules, in the namespace of these tests. Otherwise it fails at
  /// that step, and everything before and behind it happens all the same.
  static inline const bool mayIntercept = std::getenv("TANDOR_TEST_INTERCEPTION") != nullptr;

  void SetUp() override {
    DescriptorTest::SetUp();
    requireOwnNamespace();
    if (!mayIntercept) {
      const auto name = files::read_symlink("/proc/self/ns/net").string();
      ::setenv("TANDOR_PROTECTED_NETNS", name.c_str(), 1);
    }
    std::string pattern = testing::TempDir() + "tandor-XXXXXX";
    folder_ = ::mkdtemp(pattern.data());
    files::permissions(folder_, files::perms(0755));
  }
  void TearDown() override {
    for (const pid_t pid : running_) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, nullptr, 0);
    }
    EXPECT_FALSE(log().contains("Sanitizer")) << log();
    files::remove_all(folder_);
    DescriptorTest::TearDown();
  }

  [[nodiscard]] std::string path(const std::string& name) const { return folder_ / name; }
  [[nodiscard]] static std::string contents(const std::string& file) {
    std::stringstream text;
    text << std::ifstream(file).rdbuf();
    return text.str();
  }
  [[nodiscard]] std::string log() const { return contents(path("stderr")); }

  void launch(const std::vector<std::string>& arguments, int descriptor3 = -1) {
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments)
      argv.push_back(const_cast<char*>(argument.data()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, path("stderr").c_str(),
                                       O_WRONLY | O_CREAT | O_APPEND, 0600);
    ::posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO);
    if (descriptor3 >= 0) ::posix_spawn_file_actions_adddup2(&actions, descriptor3, 3);
    pid_t& pid = running_.emplace_back();
    ASSERT_EQ(::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ), 0);
    ::posix_spawn_file_actions_destroy(&actions);
  }
  /// Starts the daemon and waits until it listens.
  void serve() {
    launch({TANDOR_PROVIDER, "--control", path("control")});
    awaitService(path("control"));
  }
  /// Waits until the daemon answers there: from then on it also hears signals.
  static void awaitService(const std::string& path) {
    ASSERT_TRUE(eventually([&] { return unixSocket(path, false).isOpen(); }));
    EXPECT_EQ(Control(path).state(), "idle");
  }
  /// How the process that was launched last has ended: its status, or what killed it, negative.
  [[nodiscard]] int exitStatus() {
    int status = 0;
    EXPECT_TRUE(eventually([&] { return ::waitpid(running_.back(), &status, WNOHANG) != 0; }));
    running_.pop_back();
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
  void signal(int number) const {
    if (!isSanitized) {
      ::kill(running_.back(), number);
      return;
    }
    // ThreadSanitizer holds back what the parked main thread gets: another one takes it.
    const auto tasks = fmt::format("/proc/{}/task", running_.back());
    for (const auto& task : files::directory_iterator(tasks)) {
      if (contents(task.path() / "comm") != "tandor-loop-0\n") continue;
      ::syscall(SYS_tgkill, running_.back(), std::stoi(task.path().filename()), number);
    }
  }

  [[nodiscard]] json startRequest(std::map<std::string, std::string> settings = {}) const {
    settings.emplace("mode", "directlyWhiteList");
    settings.emplace("appIds", "[]");
    settings.emplace("socketPath", path("host"));
    return {{"call", "startProxy"},
            {"protocolConfiguration",
             {{"type", "NETunnelProviderProtocol"}, {"providerConfiguration", settings}}}};
  }
  /// Starts a provider as far as that is allowed.
  void start(const Control& control, const HostApplication& host) const {
    const std::jthread receiving([&] {
      if (!mayIntercept) return;
      EXPECT_EQ(HostApplication::receive(host.accept()), "ApiExtensionProxyStatusCallback \x01");
    });
    EXPECT_EQ(control.errorOf(startRequest({{"logPath", path("log")}})),
              mayIntercept ? std::nullopt : std::optional(1));
    EXPECT_EQ(control.state(), mayIntercept ? "running" : "failed");
  }

 private:
  files::path folder_;
  std::vector<pid_t> running_;
};

TEST_F(ControlTest, AnswersWhateverItIsAsked) {
  serve();
  const Control control(path("control"));
  const std::string deep(100'000, '[');
  const auto withConfiguration = [](const json& configuration) {
    return json{{"call", "startProxy"}, {"protocolConfiguration", configuration}}.dump();
  };
  const std::vector<std::pair<std::string, int>> requests = {
      {R"({"call":"status"})", 0},
      {R"({"call":"flows"})", 0},
      {R"({"call":"watch","flows":true})", 0},
      {R"({"call":"watch"})", -3},
      {R"({"call":"stopProxy"})", -4},
      {R"({"call":"stopProxy","reason":"now"})", -3},
      {R"({"call":"sleep"})", -4},
      {R"({"call":"wake"})", -4},
      {R"({"call":"appMessage","data":"AAAA"})", -4},
      {R"({"call":"appMessage","data":"A"})", -3},
      {R"({"call":"appMessage"})", -3},
      {withConfiguration(5), -3},
      {withConfiguration({{"type", "NETunnelProviderProtocol"}, {"providerConfiguration", 5}}), -3},
      {R"({"call":"Status"})", -2},
      {R"({"call":7})", -1},
      {R"({})", -1},
      {"", -1},
      {"status", -1},
      {"[]", -1},
      {R"({"call":"status")", -1},
      {"{\"call\":\"\xFF\"}", -1},
      {std::string("\0{}", 3), -1},
      {R"({"call":"status","id":)" + deep, -1},
      {R"({"call":"status","id":)" + deep + std::string(deep.size(), ']') + "}", -1},
      {R"({"call":"startProxy","protocolConfiguration":)" + deep + std::string(deep.size(), ']') +
           "}",
       -1},
  };
  for (const auto& [request, code] : requests) {
    SCOPED_TRACE(request.substr(0, 80));
    control.send(request + "\n");
    const json reply = control.receive();
    ASSERT_TRUE(reply.is_object());
    EXPECT_EQ(reply.at("error").is_null() ? 0 : reply["error"].at("code").get<int>(), code);
    EXPECT_TRUE(reply.at("id").is_null());
  }
  for (const char* id :
       {"null", "true", "-1", "1.5", R"("text\u0000é")", R"({"a":[1,{}]})", "[[]]"})
    EXPECT_EQ(control.call({{"call", "status"}, {"id", json::parse(id)}}).at("id"),
              json::parse(id));
  const json status = control.call({{"call", "status"}}).at("status");
  EXPECT_EQ(status.at("state"), "idle");
  EXPECT_GT(status.at("pid"), 1);
  EXPECT_EQ(status.at("flows").at("open"), 0);
}

TEST_F(ControlTest, ServesManyClientsAndSurvivesTheBadOnes) {
  serve();
  std::vector<Control> clients;
  for (int number = 0; number < 100; ++number) {
    const Control& client = clients.emplace_back(path("control"));
    for (int request = 0; request < 10; ++request)
      client.send(json{{"id", {number, request}}, {"call", "status"}}.dump() + "\n");
    if (number % 3 == 0) client.send("{\"call\":");  // never ends its line
    if (number % 3 == 1) client.finishSending();
  }
  const Control deaf(path("control"));  // reads nothing
  for (int request = 0; request < 2000; ++request)
    deaf.send(R"({"call":"status"})"
              "\n");
  const Control endless(path("control"));
  EXPECT_THROW(endless.send(std::string(9 << 20, ' ')), std::exception);
  EXPECT_EQ(json::parse(endless.receiveAll()).at("error").at("code"), -1);
  for (int number = 0; number < 100; ++number) {
    for (int request = 0; request < 10; ++request)
      EXPECT_EQ(clients.at(static_cast<std::size_t>(number)).receive().at("id"),
                (json{number, request}));
  }
  // Just within what a line may have.
  const Control control(path("control"));
  EXPECT_EQ(control.errorOf({{"call", "status"}, {"x", std::string(1'000'000, 'x')}}),
            std::nullopt);
}

TEST_F(ControlTest, LeadsAProviderThroughItsStates) {
  serve();
  const HostApplication host(path("host"));
  const Control control(path("control"));
  const std::string message =
      encodeBase64(makeAppMessage("unknown", Data::copying("\xFF\x01")).bytes());
  for (int round = 0; round < 2; ++round) {
    start(control, host);
    EXPECT_EQ(control.errorOf(startRequest()), mayIntercept ? std::optional(-5) : std::optional(1));
    EXPECT_EQ(control.call({{"call", "appMessage"}, {"data", message}}).at("data"), message);
    EXPECT_EQ(control.errorOf({{"call", "sleep"}}), std::nullopt);
    EXPECT_EQ(control.state(), mayIntercept ? "asleep" : "failed");
    EXPECT_EQ(control.errorOf({{"call", "wake"}}), std::nullopt);
    EXPECT_EQ(control.state(), mayIntercept ? "running" : "failed");
    // A host application that takes its time holds the stop, and nobody else.
    const Control other(path("control"));
    other.send(R"({"call":"stopProxy","reason":9})"
               "\n");
    const Peer client = host.accept();
    EXPECT_NE(control.state(), "stopped");
    EXPECT_EQ(HostApplication::receive(client), stopped("configurationDisabled(9)"));
    EXPECT_TRUE(other.receive().at("error").is_null());
    EXPECT_EQ(control.state(), "stopped");
    EXPECT_EQ(control.errorOf({{"call", "stopProxy"}}), -4);
  }
  const std::string redirected = contents(path("log"));
  EXPECT_TRUE(redirected.contains("parse config succeed:"));
  EXPECT_TRUE(redirected.contains("stop proxy with reason:configurationDisabled(9)"));
  EXPECT_FALSE(log().contains("parse config succeed:"));
}

TEST_F(ControlTest, EndsWithAFailedStart) {
  const json ok = startRequest().at("protocolConfiguration");
  json other = ok;
  other["type"] = "NEVPNProtocolIPSec";
  json empty = ok;
  empty.erase("providerConfiguration");
  json modeless = ok;
  modeless["providerConfiguration"]["mode"] = 5;
  json unlisted = ok;
  unlisted["providerConfiguration"]["appIds"] = "[1]";
  const std::vector<std::tuple<json, int, std::string>> cases = {
      {nullptr, 0, R"(parseFailed("invalid protocolConfiguration type"))"},
      {other, 0, R"(parseFailed("invalid protocolConfiguration type"))"},
      {empty, 0, R"(parseFailed("provider configuration is nil"))"},
      {modeless, 0, R"(parseFailed("invalid mode"))"},
      {unlisted, 3, R"(invalidJson("[1]"))"},
  };
  for (const auto& [configuration, code, description] : cases) {
    SCOPED_TRACE(configuration.dump());
    serve();
    const Control control(path("control"));
    const json reply = control.call(
        {{"id", "x"}, {"call", "startProxy"}, {"protocolConfiguration", configuration}});
    EXPECT_EQ(reply,
              (json{{"id", "x"}, {"error", {{"code", code}, {"description", description}}}}));
    EXPECT_EQ(exitStatus(), 0);
    EXPECT_FALSE(files::exists(path("control")));
  }
}

TEST_F(ControlTest, SignalsStopTheProviderAndEndTheProcess) {
  for (const auto& [number, reason] :
       {std::pair(SIGTERM, "providerDisabled(5)"), std::pair(SIGINT, "userInitiated(1)")}) {
    serve();
    {
      const HostApplication host(path("host"));
      start(Control(path("control")), host);
      signal(number);
      EXPECT_EQ(HostApplication::receive(host.accept()), stopped(reason));
    }
    EXPECT_EQ(exitStatus(), 0);
    EXPECT_FALSE(files::exists(path("control")));
    files::remove(path("host"));
  }
  {
    // Twice: without waiting for a host application that never answers.
    serve();
    const HostApplication host(path("host"));
    start(Control(path("control")), host);
    signal(SIGTERM);
    const Peer client = host.accept();
    const auto begin = std::chrono::steady_clock::now();
    signal(SIGTERM);
    EXPECT_EQ(exitStatus(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 4s);
  }
  serve();
  signal(SIGINT);
  EXPECT_EQ(exitStatus(), 0);
}

TEST_F(ControlTest, OwnsItsSocket) {
  static_cast<void>(unixSocket(path("control"), true));  // left by a crash
  serve();
  struct stat status{};
  ASSERT_EQ(::stat(path("control").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, S_IFSOCK | 0600);
  {
    // Somebody else's connection is refused even where the file lets it in.
    files::permissions(path("control"), files::perms(0666));
    std::jthread([&] {
      ASSERT_EQ(::syscall(SYS_setresuid, 65534, 65534, 65534), 0);  // this thread only
      const FileDescriptor socket = unixSocket(path("control"), false);
      ASSERT_TRUE(socket.isOpen());
      char byte = 0;
      EXPECT_LE(::recv(socket.get(), &byte, 1, 0), 0);
    }).join();
  }
  launch({TANDOR_PROVIDER, "--control", path("control")});  // a second one
  EXPECT_EQ(exitStatus(), 1);
  EXPECT_TRUE(log().contains("already listens"));
  EXPECT_EQ(Control(path("control")).state(), "idle");
  signal(SIGTERM);
  EXPECT_EQ(exitStatus(), 0);

  std::ofstream(path("file")) << "precious";
  const std::string far(200, 'x');
  const std::vector<std::pair<std::vector<std::string>, int>> launches = {
      {{"--control", path("file")}, 1},
      {{"--control", path(far)}, 1},
      {{"--control", path("file") + "/control"}, 1},
      {{"--control"}, 2},
      {{"--unknown"}, 2},
      {{"--version"}, 0},
      {{"--help"}, 0},
  };
  for (auto [arguments, expected] : launches) {
    SCOPED_TRACE(arguments.back());
    arguments.insert(arguments.begin(), TANDOR_PROVIDER);
    launch(arguments);
    EXPECT_EQ(exitStatus(), expected);
  }
  EXPECT_EQ(files::file_size(path("file")), 8U);

  // The folder is made when it is missing; a socket of the service manager stays in place.
  launch({TANDOR_PROVIDER, "--control", path("new/folder/control")});
  awaitService(path("new/folder/control"));
  signal(SIGTERM);
  EXPECT_EQ(exitStatus(), 0);
  const FileDescriptor passed = unixSocket(path("passed"), true);
  launch({"/bin/sh", "-c", "LISTEN_PID=$$ LISTEN_FDS=1 exec " TANDOR_PROVIDER}, passed.get());
  awaitService(path("passed"));
  signal(SIGTERM);
  EXPECT_EQ(exitStatus(), 0);
  EXPECT_TRUE(files::exists(path("passed")));
}

}  // namespace
}  // namespace tandor::test
