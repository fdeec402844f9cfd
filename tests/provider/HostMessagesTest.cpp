#include <fstream>

#include "ipc/AppMessage.h"
#include "provider/ProviderFixture.h"

namespace tandor::test {
namespace {

using namespace std::string_literals;

class HostMessages : public ProviderFixture {
 protected:
  /// What happens when the message comes; the reply is noted as "reply: BYTES".
  Lines sent(const Data& message) {
    static_cast<void>(journal_.take());
    provider_->handleAppMessage(message, [this](const std::optional<Data>& reply) {
      journal_.note("reply: " + (reply ? std::string(reply->characters()) : "none"));
    });
    return journal_.take();
  }
};

TEST_F(HostMessages, UpdateConfigReplacesTheConfigurationAndNothingElse) {
  start(configuration());
  const auto flow = relayed();
  const std::string json =
      R"({"mode": "directlyWhiteList", "appIds": "[]", "enable": "false", "logPath": "/l"})";
  const Data message = makeAppMessage("updateConfig", bytes(json));
  const Lines lines = sent(message);
  EXPECT_EQ(
      lines,
      (Lines{"log: handle app message: " + std::string(message.characters()),
             "log: receive app message: updateConfig [" + std::to_string(json.size()) + "] bytes",
             R"(log: parse config raw: ["appIds": "[]", "enable": "false", "logPath": "/l", )"
             R"("mode": "directlyWhiteList"])",
             "log: parse config succeed: " + provider_->config()->description(),
             "reply: " + std::string(message.characters())}));
  EXPECT_FALSE(provider_->enable());
  EXPECT_FALSE(flow->isClosed());
  EXPECT_EQ(provider_->proxyConnections().size(), 1);
  EXPECT_FALSE(provider_->handleNewFlow(platform_.tcpFlow(destination)));
}

TEST_F(HostMessages, FailuresAreLoggedAndTheReplyComesAllTheSame) {
  const auto update = [](std::string_view json) {
    return std::string(makeAppMessage("updateConfig", bytes(json)).characters());
  };
  const auto received = [](std::size_t count) {
    return "log: receive app message: updateConfig [" + std::to_string(count) + "] bytes";
  };
  const struct {
    std::string message;
    Lines lines;  // between the first line and the reply
  } cases[] = {
      {"abc", {R"(log: appMessageDeserializeFailed("no name length"))"}},
      {"", {R"(log: appMessageDeserializeFailed("no name length"))"}},
      {"\0\0\0\x05"
       "abcd"s,
       {R"(log: appMessageDeserializeFailed("no name string"))"}},
      {"\0\0\0\x01n\0\0"s, {R"(log: appMessageDeserializeFailed("no content length"))"}},
      {"\0\0\0\x01n\0\0\0\x01"s, {R"(log: appMessageDeserializeFailed("no content data"))"}},
      {"\0\0\0\x0CUpdateConfig\0\0\0\x02{}"s,
       {"log: receive app message: UpdateConfig [2] bytes",
        "log: unhandled app message: UpdateConfig"}},
      {update("{}"),
       {received(2), "log: parse config raw: [:]", R"(log: parseFailed("invalid mode"))"}},
      {update(R"({"mode": 1})"),
       {received(11), R"(log: typeMismatch("expected every value to be a string"))"}},
      {update("[]"), {received(2), R"(log: typeMismatch("expected an object"))"}},
      {update("{"), {received(1), R"(log: dataCorrupted("not valid JSON"))"}},
  };
  for (const auto& [message, lines] : cases) {
    Lines expected = {"log: handle app message: " + message};
    expected.insert(expected.end(), lines.begin(), lines.end());
    expected.push_back("reply: " + message);
    EXPECT_EQ(sent(bytes(message)), expected);
  }
  EXPECT_EQ(provider_->config()->description(), Config().description());
}

TEST_F(HostMessages, BytesThatAreNoTextAreProcessedAndShownAsNone) {
  const std::string message = "\0\0\0\x01n\0\0\0\x01\xFF"s;
  EXPECT_EQ(sent(bytes(message)),
            (Lines{"log: handle app message: ", "log: receive app message: n [1] bytes",
                   "log: unhandled app message: n", "reply: " + message}));
  EXPECT_EQ(sent(bytes("\0\0\0\x02\xFF\xFE"s)).at(1),
            R"(log: appMessageDeserializeFailed("name string decode failed"))");
}

TEST_F(HostMessages, NoReplyIsWantedWithoutACompletion) {
  provider_->handleAppMessage(makeAppMessage("n", Data()), nullptr);
  EXPECT_EQ(journal_.take().back(), "log: unhandled app message: n");
}

}  // namespace
}  // namespace tandor::test
