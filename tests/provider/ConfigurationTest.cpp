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
  /// Sends the members as "updateConfig" and returns the error that is logged, or nothing.
  std::string update(const std::string& members) {
    const Data json = bytes("{" + members + "}");
    provider_->handleAppMessage(makeAppMessage("updateConfig", json), nullptr);
    const std::string last = journal_.take().back();
    return last.starts_with("log: parse config succeed:") ? "" : last.substr(5);
  }
  [[nodiscard]] std::string current() const { return provider_->config()->description(); }
};

TEST_F(Configuration, EveryKeyAndItsDefault) {
  EXPECT_EQ(current(), rendered("false", "nil", "false", "[]", "directlyWhiteList"));
  const std::string base = R"("mode": "directlyWhiteList", "appIds": "[]")";
  const std::string proxy = R"("mode": "webProxy", "appIds": " [ ] ", "proxyHostname": )";
  const std::pair<std::string, std::string> cases[] = {
      {base, rendered("false", "nil", "false", "[]", "directlyWhiteList")},
      {base + R"(, "enable": "true", "debug": "true", "logPath": "/l", "unknown": "x")",
       rendered("true", "/l", "true", "[]", "directlyWhiteList")},
      {base + R"(, "Enable": "true", "enable": "TRUE", "debug": "1", "logPath": "")",
       rendered("false", "", "false", "[]", "directlyWhiteList")},
      {R"("mode": "tunnelWhiteList", "appIds": "[\"b\", \"a\\\"\\\\\", \"b\"]")",
       rendered("false", "nil", "false", R"(["b", "a\"\\", "b"])", "tunnelWhiteList")},
      {proxy + R"(" 10.0.0.1 ", "proxyPort": "0")",
       rendered("false", "nil", "false", "[]", "webProxy( 10.0.0.1 :0)")},
      {proxy + R"("", "proxyPort": "065535")",
       rendered("false", "nil", "false", "[]", "webProxy(:65535)")}};
  // One after the other: what a dictionary leaves out goes back to its default.
  for (const auto& [members, rendering] : cases) {
    EXPECT_EQ(update(members), "");
    EXPECT_EQ(current(), rendering);
  }
  EXPECT_EQ(update(base + R"(, "socketPath": "/s", "connectReply": "status")"), "");
  EXPECT_EQ(provider_->config()->ipcSocketPath, "/s");
  EXPECT_EQ(provider_->config()->connectReply, ConnectReply::status);
  EXPECT_EQ(update(base + R"(, "connectReply": "other")"), "");
  EXPECT_EQ(provider_->config()->ipcSocketPath, std::nullopt);
  EXPECT_EQ(provider_->config()->connectReply, ConnectReply::phrase);
  EXPECT_EQ(provider_->config()->whiteList, Config().whiteList);
}

TEST_F(Configuration, FailuresLeaveTheRestAsItWas) {
  const std::string noMode = R"(parseFailed("invalid mode"))";
  const std::string noIds = R"(parseFailed("configuration for appIds is nil"))";
  const std::string noHost = R"(parseFailed("invalid proxy host name for key [proxyHostname]"))";
  const std::string noPort = R"(parseFailed("invalid proxy port for key [proxyPort]"))";
  const std::string newRecord = rendered("true", "/l", "true", R"(["new"])", "tunnelWhiteList");
  const std::string unknownMode =
      "parseFailed(" + tandor::quoted("invalid mode: " + newRecord) + ")";
  const std::string ids = R"("appIds": "[\"new\"]")";
  const std::string proxy = ids + R"(, "mode": "webProxy")";
  const std::tuple<std::string, std::string, bool> cases[] = {
      {"", noMode, false},
      {ids, noMode, false},
      {R"("mode": "nonsense")", noIds, false},
      {R"("mode": "nonsense", "appIds": "a,b")", R"(invalidJson("a,b"))", false},
      {R"("mode": "webProxy", "appIds": "[1,2]")", R"(invalidJson("[1,2]"))", false},
      {R"("mode": "webProxy", "appIds": "")", R"(invalidJson(""))", false},
      {ids + R"(, "mode": "WebProxy", "enable": "x")", unknownMode, true},
      {ids + R"(, "mode": "")", unknownMode, true},
      {proxy + R"(, "enable": "false", "proxyPort": "x")", noHost, true},
      {proxy + R"(, "proxyHostname": "h")", noPort, true},
      {proxy + R"(, "proxyHostname": "h", "proxyPort": "70000")", noPort, true},
      {proxy + R"(, "proxyHostname": "h", "proxyPort": "+80")", noPort, true}};
  for (const auto& [members, error, replacesAppIds] : cases) {
    ASSERT_EQ(update(R"("mode": "tunnelWhiteList", "appIds": "[\"old\"]", "enable": "true",
                        "debug": "true", "logPath": "/l", "socketPath": "/s")"),
              "");
    EXPECT_EQ(update(members), error);
    const std::string appIds = replacesAppIds ? R"(["new"])" : R"(["old"])";
    EXPECT_EQ(current(), rendered("true", "/l", "true", appIds, "tunnelWhiteList")) << members;
    EXPECT_EQ(provider_->config()->ipcSocketPath, "/s");
  }
}

TEST_F(Configuration, OnlyTextCounts) {
  start(configuration({{"enable", true}, {"debug", std::int64_t{1}}, {"logPath", AnyList{"x"}}}));
  EXPECT_EQ(current(), rendered("false", "nil", "false", R"(["listed"])", "tunnelWhiteList"));
}

}  // namespace
}  // namespace tandor::test
