#include "ipc/AppMessage.h"
#include "provider/ProviderFixture.h"

namespace tandor::test {
namespace {

using namespace std::string_literals;

std::string rendered(const std::string& enable, const std::string& logPath,
                     const std::string& isDebug, const std::string& appIds,
                     const std::string& mode) {
  return "TransparentProxyProvider.Config:\n{\n    enable:" + enable + "\n    logPath:" + logPath +
         "\n    isDebug:" + isDebug + "\n    appIds:" + appIds + "\n    mode:" + mode + "\n}";
}

class Configuration : public ProviderFixture {
 protected:
  /// Sends a message, to which it is itself the reply; what is logged last of it.
  std::string send(const std::string& message) {
    std::string replied;
    provider_->handleAppMessage(bytes(message), [&](const std::optional<Data>& reply) {
      replied = reply ? reply->characters() : "none";
    });
    EXPECT_EQ(replied, message);
    return journal_.take().back().substr(5);
  }
  /// The error that an update brings, or nothing.
  std::string update(const std::string& json) {
    const Data message = makeAppMessage("updateConfig", bytes(json));
    const std::string last = send(std::string(message.characters()));
    return last.starts_with("parse config succeed:") ? "" : last;
  }
  [[nodiscard]] std::string current() const { return provider_->config()->description(); }
};

TEST_F(Configuration, EveryKeyAndItsDefault) {
  EXPECT_EQ(current(), rendered("false", "nil", "false", "[]", "directlyWhiteList"));
  const std::string base = R"({"mode": "directlyWhiteList", "appIds": "[]")";
  const std::string proxy = R"({"mode": "webProxy", "appIds": " [ ] ", "proxyHostname": )";
  const std::pair<std::string, std::string> cases[] = {
      {base, rendered("false", "nil", "false", "[]", "directlyWhiteList")},
      {base + R"(, "enable": "true", "debug": "true", "logPath": "/l", "unknown": "x")",
       rendered("true", "/l", "true", "[]", "directlyWhiteList")},
      {base + R"(, "Enable": "true", "enable": "TRUE", "debug": "1", "logPath": "")",
       rendered("false", "", "false", "[]", "directlyWhiteList")},
      {R"({"mode": "tunnelWhiteList", "appIds": "[\"b\", \"a\\\"\\\\\", \"b\"]")",
       rendered("false", "nil", "false", R"(["b", "a\"\\", "b"])", "tunnelWhiteList")},
      {proxy + R"("", "proxyPort": "065535")",
       rendered("false", "nil", "false", "[]", "webProxy(:65535)")}};
  // One after the other: what a dictionary leaves out goes back to its default.
  for (const auto& [members, rendering] : cases) {
    EXPECT_EQ(update(members + "}"), "");
    EXPECT_EQ(current(), rendering);
  }
  EXPECT_EQ(update(base + R"(, "socketPath": "/s", "connectReply": "status"})"), "");
  EXPECT_EQ(provider_->config()->ipcSocketPath, "/s");
  EXPECT_EQ(provider_->config()->connectReply, ConnectReply::status);
  EXPECT_EQ(update(base + R"(, "connectReply": "other"})"), "");
  EXPECT_EQ(provider_->config()->ipcSocketPath, std::nullopt);
  EXPECT_EQ(provider_->config()->connectReply, ConnectReply::phrase);
}

TEST_F(Configuration, FailuresLeaveTheRestAsItWas) {
  const std::string noMode = R"(parseFailed("invalid mode"))";
  const std::string noHost = R"(parseFailed("invalid proxy host name for key [proxyHostname]"))";
  const std::string noPort = R"(parseFailed("invalid proxy port for key [proxyPort]"))";
  const std::string newRecord = rendered("true", "/l", "true", R"(["new"])", "tunnelWhiteList");
  const std::string unknownMode =
      "parseFailed(" + tandor::quoted("invalid mode: " + newRecord) + ")";
  const std::string ids = R"({"appIds": "[\"new\"]")";
  const std::string proxy = ids + R"(, "mode": "webProxy")";
  const std::tuple<std::string, std::string, bool> cases[] = {
      // the update, what is said of it, whether it puts its applications in place
      {"{}", noMode, false},
      {R"({"mode": "x"})", R"(parseFailed("configuration for appIds is nil"))", false},
      {R"({"mode": "x", "appIds": "a,b"})", R"(invalidJson("a,b"))", false},
      {R"({"mode": "webProxy", "appIds": "[1,2]"})", R"(invalidJson("[1,2]"))", false},
      {R"({"mode": 1})", R"(typeMismatch("expected every value to be a string"))", false},
      {"[]", R"(typeMismatch("expected an object"))", false},
      {"{", R"(dataCorrupted("not valid JSON"))", false},
      {ids + R"(, "mode": "WebProxy", "enable": "x"})", unknownMode, true},
      {proxy + R"(, "enable": "false", "proxyPort": "x"})", noHost, true},
      {proxy + R"(, "proxyHostname": "h"})", noPort, true},
      {proxy + R"(, "proxyHostname": "h", "proxyPort": "70000"})", noPort, true},
      {proxy + R"(, "proxyHostname": "h", "proxyPort": "+80"})", noPort, true}};
  for (const auto& [json, error, replacesAppIds] : cases) {
    ASSERT_EQ(update(R"({"mode": "tunnelWhiteList", "appIds": "[\"old\"]", "enable": "true",
                         "debug": "true", "logPath": "/l"})"),
              "");
    EXPECT_EQ(update(json), error);
    const std::string appIds = replacesAppIds ? R"(["new"])" : R"(["old"])";
    EXPECT_EQ(current(), rendered("true", "/l", "true", appIds, "tunnelWhiteList")) << json;
  }
  EXPECT_EQ(send("\0\0\0\x05n"s), R"(appMessageDeserializeFailed("no name string"))");
  EXPECT_EQ(send("\0\0\0\x01n\0\0\0\x01\xFF"s), "unhandled app message: n");
  provider_->handleAppMessage(bytes("nobody waits for the reply"), nullptr);
}

}  // namespace
}  // namespace tandor::test
