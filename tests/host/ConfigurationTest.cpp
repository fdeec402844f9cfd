#include <sys/stat.h>

#include <gtest/gtest.h>

#include "host/Configuration.h"
#include "host/ConfigurationFile.h"
#include "host/SentConfiguration.h"
#include "host/Support.h"

namespace tandor::host::test {
namespace {

TEST(ProxyTest, ReadsHostAndPort) {
  const struct {
    std::string_view text;
    std::string shown;  // the description, or the error
  } cases[] = {
      {"proxy.example:3128", "proxy.example:3128"},
      {"[2001:db8::1]:65535", "[2001:db8::1]:65535"},
      {"http://proxy.example:3128/", "proxy.example:3128"},
      {"proxy.example", "the port is missing"},
      {"proxy.example:0", "the port is no number from 1 to 65535"},
      {"proxy.example:65536", "the port is no number from 1 to 65535"},
      {":3128", "the host is missing"},
      {"2001:db8::1:3128", "an IPv6 address needs brackets and a port behind them"},
      {"https://proxy.example:3128", "a proxy that speaks https is not supported"},
      {"me:secret@proxy.example:3128", "a user name and password are not supported"},
      {"proxy\n.example:3128", "the host has characters that no host name has"},
  };
  for (const auto& [text, shown] : cases) {
    const auto proxy = Proxy::parse(text);
    EXPECT_EQ(proxy ? proxy->description() : proxy.error(), shown) << text;
  }
}

TEST(ConfigurationFileTest, NamesFileLineAndKeyOfWhatIsWrong) {
  const struct {
    std::string_view text;
    std::string_view error;  // its beginning
  } cases[] = {
      {"{\n  // which\n  \"mode\": \"WebProxy\"\n}", R"(f:3: "mode" must be "webProxy", )"},
      {"{\"mode\":\n\n 7\n}", "f:3: \"mode\" must be a text"},
      {"{\n\"enable\": 1\n}", "f:2: \"enable\" must be true or false"},
      {R"({"apps": "curl"})", "f:1: \"apps\" must be a list of texts"},
      {"{\"apps\": [\"a\",\n 2]}", "f:2: \"apps\" must be a list of texts"},
      {"{\n\n\"proxy\": \"proxy.example\"}", R"(f:3: "proxy" must be "HOST:PORT"; the port is )"},
      {R"({"connectReply": "200"})", R"(f:1: "connectReply" must be "status" or "phrase")"},
      {"{\n\"Mode\": \"webProxy\"}", "f:2: \"Mode\" is unknown; the keys are mode, "},
      {"{\"debug\": true,\n\"debug\": true}", "f:2: \"debug\" is there twice"},
      {"[]", "f:1: the file must hold one object"},
      {"", "f:1: no valid JSON: "},
      {"{\n\"mode\" \"webProxy\"}", "f:2: \"mode\" or behind it: no valid JSON: "},
      {"{\"debug\": true,\n\n}", "f:3: \"debug\" or behind it: no valid JSON: "},
      {"{\"debug\": true}\n{}", "f:2: \"debug\" or behind it: no valid JSON: "},
      {"{\"log\": \"\xFF\"}", "f:1: \"log\" or behind it: no valid JSON: "},
  };
  for (const auto& [text, error] : cases) {
    const auto settings = parseConfigurationFile(text, "f");
    ASSERT_FALSE(settings.has_value()) << text;
    EXPECT_TRUE(settings.error().message.starts_with(error)) << settings.error().message;
    EXPECT_EQ(settings.error().exitCode, exitWrongUsage);
    EXPECT_FALSE(settings.error().advice.empty());
  }
}

TEST(ConfigurationTest, RefusesWhatWouldDoNothing) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"{}", "the mode is missing"},
      {R"({"mode": "webProxy"})", "webProxy mode needs a proxy"},
      {R"({"mode": "webProxy", "proxy": "proxy.example:3128"})",
       "webProxy mode without applications would do nothing"},
      {R"({"mode": "tunnelWhiteList", "apps": []})", ""},
      {R"({"mode": "tunnelWhiteList", "apps": ["no-such-thing"]})",
       R"(/etc/f:1: "apps": there is no application "no-such-thing")"}};
  for (const auto& [file, message] : cases) {
    const Settings settings = parseConfigurationFile(file, "/etc/f").value();
    const auto made = makeConfiguration(settings, ApplicationResolver({}));
    EXPECT_EQ(made ? "" : made.error().message, message);
    if (made) continue;
    EXPECT_EQ(made.error().exitCode, exitWrongUsage);
    EXPECT_FALSE(made.error().advice.empty());
  }
}

TEST(ConfigurationTest, SpeaksTheProvidersLanguageBothWays) {
  const TemporaryFolder folder;
  folder.write("etc/tandor.json", R"(/* all keys */ {
    "mode": "webProxy",  // through the proxy
    "proxy": "proxy.example:3128", "connectReply": "phrase",
    "apps": ["id:/usr/bin/curl", "id:org.example.\"App\"", "id:/usr/bin/curl"],
    "log": "../log/tandor.log", "debug": true, "enable": false})");
  const Settings settings = readConfigurationFile(folder / "etc/tandor.json").value();
  const ApplicationResolver resolver({});
  const ProviderValues values = makeConfiguration(settings, resolver).value().values("/run/status");
  EXPECT_EQ(values, (ProviderValues{{"mode", "webProxy"},
                                    {"appIds", R"(["/usr/bin/curl","org.example.\"App\""])"},
                                    {"proxyHostname", "proxy.example"},
                                    {"proxyPort", "3128"},
                                    {"enable", "false"},
                                    {"debug", "true"},
                                    {"logPath", folder / "log/tandor.log"},
                                    {"socketPath", "/run/status"}}));
  // What was sent is what the next update starts from.
  EXPECT_EQ(makeConfiguration(settingsOf(values), resolver).value().values("/run/status"), values);
  folder.write("long.json", std::string(2 << 20, ' '));
  const std::string fifo = folder / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), S_IRUSR | S_IWUSR), 0);
  for (const std::string& path : {folder.path().string(), folder / "long.json", fifo})
    EXPECT_FALSE(readConfigurationFile(path).has_value()) << path;
}

TEST(SentConfigurationTest, IsKeptForOneProvider) {
  const TemporaryFolder folder;
  const std::string control = folder / "control.sock";
  const ProviderValues values = {{"mode", "tunnelWhiteList"}, {"appIds", "[]"}};
  ASSERT_TRUE(keepSent(control, 11, {}).has_value());
  ASSERT_TRUE(keepSent(control, 12, values).has_value());
  EXPECT_EQ(lastSent(control, 12), values);
  EXPECT_FALSE(lastSent(control, 13).has_value());
  for (const std::string_view broken :
       {"", "{", "[]", "{\"provider\":12}", R"({"provider":12,"values":{"mode":1}})"}) {
    folder.write("control.sock.sent", broken);
    EXPECT_FALSE(lastSent(control, 12).has_value()) << broken;
  }
  forgetSent(control);
  EXPECT_FALSE(lastSent(control, 12).has_value());
  EXPECT_FALSE(keepSent(folder / "none/control.sock", 12, values).has_value());
}

}  // namespace
}  // namespace tandor::host::test
