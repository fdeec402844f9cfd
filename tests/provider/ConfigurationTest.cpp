#include "ipc/AppMessage.h"
#include "provider/ProviderFixture.h"

namespace tandor::test {
namespace {

std::string rendered(const std::string& enable, const std::string& logPath,
                     const std::string& isDebug, const std::string& appIds,
                     const std::string& mode) {
  return "TransparentProxyProvider.Config:\n{\n    enable:" + enable + "\n    logPath:" + logPath +
         "\n    isDebug:" + isDebug + "\n    appIds:" + appIds + "\n    mode:" + mode + "\n}";
}

class Configuration : public ProviderFixture {
 protected:
  /// Sends `json` as "updateConfig" and returns the error that is logged, or nothing.
  std::string update(std::string_view json) {
    static_cast<void>(journal_.take());
    provider_->handleAppMessage(makeAppMessage("updateConfig", bytes(json)), nullptr);
    std::string last = journal_.take().back();
    return last.starts_with("log: parse config succeed:") ? "" : last.substr(5);
  }
  [[nodiscard]] std::string current() const { return provider_->config()->description(); }
};

TEST_F(Configuration, BeginsSwitchedOffAndEmpty) {
  const auto config = provider_->config();
  EXPECT_EQ(current(), rendered("false", "nil", "false", "[]", "directlyWhiteList"));
  EXPECT_EQ(config->ipcSocketPath, std::nullopt);
  ASSERT_EQ(config->whiteList.size(), 3);
  EXPECT_EQ(config->whiteList[0], "Tandor_root");
  EXPECT_EQ(config->whiteList[1].size(), 19);
  EXPECT_EQ(config->whiteList[2].size(), 20);
}

TEST_F(Configuration, EveryKeyAndItsDefault) {
  const std::string base = R"("mode": "directlyWhiteList", "appIds": "[]")";
  const struct {
    std::string more;
    std::string rendering;
  } cases[] = {
      {base, rendered("false", "nil", "false", "[]", "directlyWhiteList")},
      {base + R"(, "enable": "true", "debug": "true", "logPath": "/l", "unknown": "x")",
       rendered("true", "/l", "true", "[]", "directlyWhiteList")},
      {base + R"(, "enable": "TRUE", "debug": "1", "logPath": "")",
       rendered("false", "", "false", "[]", "directlyWhiteList")},
      {base + R"(, "Enable": "true", "enable": "true ", "debug": " true")",
       rendered("false", "nil", "false", "[]", "directlyWhiteList")},
      {R"("mode": "tunnelWhiteList", "appIds": "[\"b\", \"a\\\"\\\\\", \"b\"]")",
       rendered("false", "nil", "false", R"(["b", "a\"\\", "b"])", "tunnelWhiteList")},
      {R"("mode": "webProxy", "appIds": " [ ] ", "proxyHostname": " 10.0.0.1 ", "proxyPort": "0")",
       rendered("false", "nil", "false", "[]", "webProxy( 10.0.0.1 :0)")},
      {R"("mode": "webProxy", "appIds": "[]", "proxyHostname": "", "proxyPort": "65535")",
       rendered("false", "nil", "false", "[]", "webProxy(:65535)")},
      {R"("mode": "webProxy", "appIds": "[]", "proxyHostname": "::1", "proxyPort": "080")",
       rendered("false", "nil", "false", "[]", "webProxy(::1:80)")},
  };
  // One after the other: what a dictionary leaves out goes back to its default.
  for (const auto& [more, rendering] : cases) {
    EXPECT_EQ(update("{" + more + "}"), "");
    EXPECT_EQ(current(), rendering);
  }
  EXPECT_EQ(update("{" + base + R"(, "socketPath": "/s"})"), "");
  EXPECT_EQ(provider_->config()->ipcSocketPath, "/s");
  EXPECT_EQ(update("{" + base + "}"), "");
  EXPECT_EQ(provider_->config()->ipcSocketPath, std::nullopt);
  EXPECT_EQ(provider_->config()->whiteList.size(), 3);
}

TEST_F(Configuration, FailuresLeaveTheRestAsItWas) {
  const std::string hostFailure =
      R"(parseFailed("invalid proxy host name for key [proxyHostname]"))";
  const std::string portFailure = R"(parseFailed("invalid proxy port for key [proxyPort]"))";
  const std::string unknownMode =
      "parseFailed(" +
      tandor::quoted("invalid mode: " +
                     rendered("true", "/l", "true", R"(["new"])", "tunnelWhiteList")) +
      ")";
  const std::string newIds = R"("appIds": "[\"new\"]")";
  const std::string proxy = newIds + R"(, "mode": "webProxy")";
  const struct {
    std::string raw;
    std::string error;
    bool replacesAppIds;
  } cases[] = {
      {"", R"(parseFailed("invalid mode"))", false},
      {newIds, R"(parseFailed("invalid mode"))", false},
      {R"("mode": "directlyWhiteList")", R"(parseFailed("configuration for appIds is nil"))",
       false},
      {R"("mode": "nonsense")", R"(parseFailed("configuration for appIds is nil"))", false},
      {R"("mode": "nonsense", "appIds": "a,b")", R"(invalidJson("a,b"))", false},
      {R"("mode": "webProxy", "appIds": "[1,2]")", R"(invalidJson("[1,2]"))", false},
      {R"("mode": "webProxy", "appIds": "{\"a\":\"b\"}")", R"(invalidJson("{\"a\":\"b\"}"))",
       false},
      {R"("mode": "webProxy", "appIds": "")", R"(invalidJson(""))", false},
      {newIds + R"(, "mode": "WebProxy", "enable": "x")", unknownMode, true},
      {newIds + R"(, "mode": "")", unknownMode, true},
      {proxy + R"(, "enable": "false")", hostFailure, true},
      {proxy + R"(, "proxyPort": "x")", hostFailure, true},
      {proxy + R"(, "proxyHostname": "h")", portFailure, true},
      {proxy + R"(, "proxyHostname": "h", "proxyPort": "70000")", portFailure, true},
      {proxy + R"(, "proxyHostname": "h", "proxyPort": "+80")", portFailure, true},
      {proxy + R"(, "proxyHostname": "h", "proxyPort": "")", portFailure, true},
  };
  for (const auto& [raw, error, replacesAppIds] : cases) {
    SCOPED_TRACE(raw);
    ASSERT_EQ(update(R"({"mode": "tunnelWhiteList", "appIds": "[\"old\"]", "enable": "true",
                         "debug": "true", "logPath": "/l", "socketPath": "/s"})"),
              "");
    EXPECT_EQ(update("{" + raw + "}"), error);
    EXPECT_EQ(current(), rendered("true", "/l", "true",
                                  replacesAppIds ? R"(["new"])" : R"(["old"])", "tunnelWhiteList"));
    EXPECT_EQ(provider_->config()->ipcSocketPath, "/s");
  }
}

TEST_F(Configuration, OnlyTextCounts) {
  start(configuration({{"enable", true},
                       {"debug", std::int64_t{1}},
                       {"logPath", AnyList{"x"}},
                       {"socketPath", AnyDictionary{}},
                       {"proxyPort", 2.5}}));
  EXPECT_EQ(current(), rendered("false", "nil", "false", R"(["listed"])", "tunnelWhiteList"));
  EXPECT_EQ(provider_->config()->ipcSocketPath, std::nullopt);
}

TEST_F(Configuration, ErrorsHaveTheirCodes) {
  const std::pair<TandorProviderError, std::string> errors[] = {
      {TandorProviderError::parseFailed("t\n"), R"(parseFailed("t\n"))"},
      {TandorProviderError::providerStopped(NEProviderStopReason::sleep),
       "providerStopped(reason: sleep(15))"},
      {TandorProviderError::appMessageDeserializeFailed("t"),
       R"(appMessageDeserializeFailed("t"))"},
      {TandorProviderError::invalidJson("t"), R"(invalidJson("t"))"},
      {TandorProviderError::quicNotSupport(), "quicNotSupport"},
  };
  for (std::int64_t code = 0; const auto& [error, form] : errors) {
    EXPECT_EQ(error.description(), form);
    EXPECT_EQ(error.platformError().description(), form);
    EXPECT_EQ(error.platformError().code(), code++);
  }
}

}  // namespace
}  // namespace tandor::test
