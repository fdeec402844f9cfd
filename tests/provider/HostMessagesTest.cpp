#include "ipc/AppMessage.h"
#include "provider/ProviderFixture.h"

namespace tandor::test {
namespace {

using namespace std::string_literals;

class HostMessages : public ProviderFixture {
 protected:
  /// What happens when the message comes; the reply is noted as "reply: BYTES".
  Lines sent(const std::string& message) {
    static_cast<void>(journal_.take());
    provider_->handleAppMessage(bytes(message), [this](const std::optional<Data>& reply) {
      journal_.note("reply: " + (reply ? std::string(reply->characters()) : "none"));
    });
    return journal_.take();
  }
  static std::string update(std::string_view json) {
    return std::string(makeAppMessage("updateConfig", bytes(json)).characters());
  }
};

TEST_F(HostMessages, UpdateConfigReplacesTheConfigurationAndNothingElse) {
  start(configuration());
  const auto flow = relayed();
  const std::string message =
      update(R"({"mode": "directlyWhiteList", "appIds": "[]", "enable": "false"})");
  const std::string raw = R"(log: parse config raw: ["appIds": "[]", "enable": "false", )"
                          R"("mode": "directlyWhiteList"])";
  const Lines lines = sent(message);
  EXPECT_EQ(lines, (Lines{"log: handle app message: " + message,
                          "log: receive app message: updateConfig [64] bytes", raw,
                          "log: parse config succeed: " + provider_->config()->description(),
                          "reply: " + message}));
  EXPECT_FALSE(provider_->enable() || flow->isClosed());
}

TEST_F(HostMessages, FailuresAreLoggedAndTheReplyComesAllTheSame) {
  const std::string received = "log: receive app message: updateConfig ";
  const std::pair<std::string, Lines> cases[] = {
      {"\0\0\0\x05n"s, {R"(log: appMessageDeserializeFailed("no name string"))"}},
      {"\0\0\0\x0CUpdateConfig\0\0\0\x02{}"s,
       {"log: receive app message: UpdateConfig [2] bytes",
        "log: unhandled app message: UpdateConfig"}},
      {update("{}"),
       {received + "[2] bytes", "log: parse config raw: [:]",
        R"(log: parseFailed("invalid mode"))"}},
      {update(R"({"mode": 1})"),
       {received + "[11] bytes", R"(log: typeMismatch("expected every value to be a string"))"}},
      {update("[]"), {received + "[2] bytes", R"(log: typeMismatch("expected an object"))"}},
      {update("{"), {received + "[1] bytes", R"(log: dataCorrupted("not valid JSON"))"}},
      // Bytes that are no text are processed, and shown as none.
      {"\0\0\0\x01n\0\0\0\x01\xFF"s,
       {"log: receive app message: n [1] bytes", "log: unhandled app message: n"}}};
  for (const auto& [message, lines] : cases) {
    Lines expected = lines;
    const std::string shown = message.ends_with('\xFF') ? "" : message;
    expected.insert(expected.begin(), "log: handle app message: " + shown);
    expected.push_back("reply: " + message);
    EXPECT_EQ(sent(message), expected);
  }
  EXPECT_EQ(provider_->config()->description(), Config().description());
  provider_->handleAppMessage(bytes("nobody waits for the reply"), nullptr);
}

}  // namespace
}  // namespace tandor::test
