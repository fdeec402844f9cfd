#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/resource.h>
#include <unistd.h>

#include "provider/ProviderFixture.h"
#include "support/FakeHost.h"

namespace tandor::test {
namespace {

using Type = NWInterface::InterfaceType;

class ProviderLifecycle : public ProviderFixture {
 protected:
  static std::string content(const std::vector<std::uint8_t>& message) {
    constexpr std::size_t contentOffset = 72 + 31;  // behind the name
    return message.size() < contentOffset
               ? "none"
               : std::string(message.begin() + contentOffset, message.end());
  }
};

TEST_F(ProviderLifecycle, StartInItsOrder) {
  std::signal(SIGPIPE, SIG_DFL);
  begin(configuration());
  EXPECT_EQ(std::signal(SIGPIPE, SIG_IGN), SIG_IGN);
  EXPECT_EQ(journal_.take(),
            (Lines{R"(log: parse config raw: ["appIds": "[\"listed\"]", "enable": "true", )"
                   R"("mode": "tunnelWhiteList"])",
                   "path monitor: start",
                   "log: parse config succeed: " + provider_->config()->description(),
                   "host: settings"}));
  const auto outbound = [](NENetworkRule::Protocol protocol) {
    return NENetworkRule{.remoteNetwork = std::nullopt,
                         .localNetwork = std::nullopt,
                         .protocol = protocol,
                         .direction = NENetworkRule::Direction::outbound};
  };
  EXPECT_EQ(host_.settings(),
            (NETransparentProxyNetworkSettings{
                "127.0.0.1",
                {outbound(NENetworkRule::Protocol::tcp), outbound(NENetworkRule::Protocol::udp)}}));
  host_.completeSettings();
  EXPECT_EQ(journal_.take(), (Lines{"log: provider did start", "completed nil"}));
}

TEST_F(ProviderLifecycle, StartGoesOnFailingWhenTheSettingsFail) {
  begin(configuration({{"socketPath", "/tandor-nobody-listens"}}));
  static_cast<void>(journal_.take());
  host_.completeSettings(broken);
  EXPECT_EQ(journal_.take(),
            (Lines{"log: setting error while starting provider: broken", "completed broken"}));
}

TEST_F(ProviderLifecycle, StartCompletesWhenTheProviderIsGone) {
  FakeHost application;
  begin(configuration({{"socketPath", application.path()}}));
  static_cast<void>(journal_.take());
  provider_ = nullptr;
  host_.completeSettings();
  EXPECT_EQ(journal_.take(), (Lines{"log: provider did start", "completed nil"}));
}

TEST_F(ProviderLifecycle, TellsTheHostApplicationOfStartAndStop) {
  FakeHost application;
  begin(configuration({{"socketPath", application.path()}}));
  host_.completeSettings();
  EXPECT_EQ(content(application.nextMessage()), "\x01");
  const auto flow = relayed();
  const auto kept = provider_->proxyConnections();  // or its destructor would close once more
  static_cast<void>(journal_.take());
  provider_->stopProxy(NEProviderStopReason::userInitiated, completed());
  const std::string text = "stop proxy with reason:userInitiated(1)";
  EXPECT_EQ(journal_.take(), (Lines{"log: " + text, "out1: handler cleared", "out1: cancel",
                                    "flow1: closeRead nil", "flow1: closeWrite nil", "completed"}));
  EXPECT_EQ(content(application.nextMessage()), '\0' + text);
  EXPECT_TRUE(provider_->proxyConnections().empty());
  EXPECT_FALSE(provider_->enable());
}

TEST_F(ProviderLifecycle, AnUnreachableHostApplicationChangesNothing) {
  begin(configuration({{"socketPath", "/tandor-nobody-listens"}}));
  static_cast<void>(journal_.take());
  host_.completeSettings();
  const std::string failure = R"(log: ipc send status change failed: bsdError(message: )"
                              R"("connect socket failed", errno: 2))";
  EXPECT_EQ(journal_.take(), (Lines{"log: provider did start", failure, "completed nil"}));
  provider_->stopProxy(static_cast<NEProviderStopReason>(99), completed());
  EXPECT_EQ(journal_.take(),
            (Lines{"log: stop proxy with reason:unknown(99)", failure, "completed"}));
}

TEST_F(ProviderLifecycle, SleepClosesAndWakeSwitchesOn) {
  start(configuration());
  const auto flow = relayed();
  const auto other = relayed();
  static_cast<void>(journal_.take());
  provider_->sleep(completed());
  const Lines lines = journal_.take();
  EXPECT_EQ(lines.front(), "log: fall asleep");
  EXPECT_EQ(lines.back(), "completed");
  EXPECT_TRUE(flow->isClosed() && other->isClosed());
  EXPECT_TRUE(provider_->proxyConnections().empty());
  EXPECT_FALSE(provider_->handleNewFlow(platform_.tcpFlow(destination)));
  provider_->wake();
  EXPECT_EQ(journal_.take(), Lines{"log: wake up"});
  EXPECT_TRUE(provider_->enable());
  EXPECT_TRUE(provider_->proxyConnections().empty());
}

TEST_F(ProviderLifecycle, SwitchingOnClosesNothing) {
  start(configuration());
  const auto flow = relayed();
  provider_->setEnable(true);
  EXPECT_FALSE(flow->isClosed());
  provider_->setEnable(false);
  EXPECT_TRUE(flow->isClosed());
  static_cast<void>(journal_.take());
  provider_->setEnable(false);
  EXPECT_EQ(journal_.take(), Lines());
}

TEST_F(ProviderLifecycle, FailedStartCompletesAndThenEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  struct OtherProtocol final : NEVPNProtocol {};
  const struct {
    std::shared_ptr<NEVPNProtocol> protocol;
    const char* error;
  } cases[] = {
      {nullptr, R"(parseFailed."invalid protocolConfiguration type".)"},
      {std::make_shared<OtherProtocol>(), R"(parseFailed."invalid protocolConfiguration type".)"},
      {std::make_shared<NETunnelProviderProtocol>(std::nullopt),
       R"(parseFailed."provider configuration is nil".)"},
      {std::make_shared<NETunnelProviderProtocol>(AnyDictionary{}),
       R"(parseFailed."invalid mode".)"},
      {std::make_shared<NETunnelProviderProtocol>(configuration({{"mode", std::int64_t{1}}})),
       R"(parseFailed."invalid mode".)"},
      {std::make_shared<NETunnelProviderProtocol>(configuration({{"appIds", AnyList{}}})),
       R"(parseFailed."configuration for appIds is nil".)"},
      {std::make_shared<NETunnelProviderProtocol>(webProxy({{"proxyPort", std::int64_t{80}}})),
       R"(parseFailed."invalid proxy port for key .proxyPort.".)"},
  };
  for (const auto& [protocol, error] : cases) {
    provider_->attach(host_, protocol);
    EXPECT_EXIT(provider_->startProxy({},
                                      [](const std::optional<NSError>& given) {
                                        std::fputs(("<" + description(given) + ">").c_str(),
                                                   stderr);
                                      }),
                testing::ExitedWithCode(EXIT_SUCCESS), "^<" + std::string(error) + ">$");
  }
}

TEST_F(ProviderLifecycle, InterfaceChoice) {
  const NWInterface wifi{"wlan0", Type::wifi, 3};
  const NWInterface wired{"en0", Type::wiredEthernet, 2};
  const NWInterface second{"en1", Type::wiredEthernet, 4};
  const NWInterface cellular{"wwan0", Type::cellular, 5};
  const NWInterface loopback{"lo", Type::loopback, 1};
  const NWInterface tunnel{"tun0", Type::other, 6};
  start(configuration());
  begin(configuration());
  const Lines lines = journal_.take();
  EXPECT_EQ(std::ranges::count(lines, "path monitor: start"), 0) << "started a second time";
  const struct {
    std::vector<NWInterface> available;
    std::optional<NWInterface> choice;
  } cases[] = {
      {{wifi, cellular}, wifi},
      {{cellular, wifi}, wifi},
      {{cellular, wifi, second, wired}, second},
      {{second, wired}, second},
      {{loopback, tunnel}, std::nullopt},
      {{tunnel, cellular}, cellular},
      {{tunnel, cellular}, cellular},
      {{}, std::nullopt},
  };
  for (const auto& [available, choice] : cases) {
    platform_.reportPath(available);
    EXPECT_EQ(journal_.take(), choice ? Lines{"log: selected interface:" + choice->name} : Lines());
    EXPECT_EQ(provider_->directlyInterface(), choice);
  }
  provider_ = nullptr;
  platform_.reportPath({wifi});
  EXPECT_EQ(journal_.take(), Lines{"log: selected interface:wlan0"});
}

/// A directory that goes with the object.
struct TemporaryDirectory {
  TemporaryDirectory() { EXPECT_NE(::mkdtemp(path.data()), nullptr); }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  ~TemporaryDirectory() { std::filesystem::remove_all(path); }
  std::string path = testing::TempDir() + "tandor-XXXXXX";
};

std::string contentOf(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST_F(ProviderLifecycle, StartRedirectsTheLogBeforeItShowsTheConfiguration) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const TemporaryDirectory directory;
  const std::string path = directory.path + "/log";
  std::ofstream(path) << "earlier\n";
  // In a child, whose outputs may go. It names the file itself: the parent's is not its own.
  const auto redirected = [&] {
    setNSLogSink(nullptr);
    begin(configuration({{"logPath", path}}));
    static_cast<void>(std::puts("standard output"));
    static_cast<void>(std::fflush(stdout));
    static_cast<void>(std::fputs(contentOf(path).c_str(), stderr));
    const std::string written = contentOf(path);
    const bool isAppended = written.starts_with("earlier\n");
    const bool hasLine =
        written.contains("] parse config succeed: TransparentProxyProvider.Config:\n{\n");
    const bool isRedirected =
        !written.contains("redirect log to:") && written.contains("standard output\n");
    _exit(isAppended && hasLine && isRedirected ? 0 : 1);
  };
  EXPECT_EXIT(redirected(), testing::ExitedWithCode(0), "redirect log to: .*/log");
}

TEST_F(ProviderLifecycle, EmptyLogPathRedirectsNothing) {
  start(configuration({{"logPath", ""}}));
  EXPECT_EQ(provider_->config()->logPath, "");
}

TEST_F(ProviderLifecycle, FailedRedirectionLeavesTheOutputs) {
  TandorTransparentProxyProvider::redirectLog("/no-such-directory/log");
  EXPECT_EQ(journal_.take(), (Lines{"log: redirect log to: /no-such-directory/log",
                                    "log: redirect failed to open file /no-such-directory/log"}));
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const TemporaryDirectory directory;
  const auto redirectWithOneDescriptor = [&] {
    setNSLogSink(nullptr);
    // Descriptor 0 is all that may be opened, so neither output can be replaced.
    const rlimit one{.rlim_cur = 1, .rlim_max = 1};
    ::close(STDIN_FILENO);
    ::setrlimit(RLIMIT_NOFILE, &one);
    TandorTransparentProxyProvider::redirectLog(directory.path + "/log");
    _exit(0);
  };
  EXPECT_EXIT(redirectWithOneDescriptor(), testing::ExitedWithCode(0),
              "failed to redirect stdout\n.*failed to redirect stderr\n");
}

}  // namespace
}  // namespace tandor::test
