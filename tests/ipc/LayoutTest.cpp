#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ipc/AppMessage.h"
#include "ipc/Payload.h"
#include "ipc/StatusMessage.h"

namespace tandor::test {
namespace {

using namespace std::string_literals;

std::string payload(std::string_view name, const std::optional<Data>& content) {
  const auto made = makePayload(name, content);
  return made ? std::string(made->begin(), made->end()) : made.error().description();
}

/// The bytes that do not differ between two payloads of the same name and content.
std::string fixedPart(std::string bytes) {
  return bytes.replace(40, 16, "<message id>").replace(8, 16, "<packet id>");
}

TEST(Payload, ByteForByte) {
  EXPECT_EQ(fixedPart(payload("ab", Data::copying("\x01"))),
            "\0\0\0\x47\0\0\0\x0A<packet id>\0\0\0\0\0\0\0\x23\0\0\0\0\0\0\0\0<message id>"
            "\0\0\0\0\0\0\0\x02"
            "ab\0\0\0\0\0\0\0\x01\x01"s);
  // Lengths count bytes, and an absent content looks like an empty one.
  EXPECT_TRUE(payload("\xC3\xA9", std::nullopt).ends_with("\0\x02\xC3\xA9\0\0\0\0\0\0\0\0"s));
  const std::string large = fixedPart(payload("n", Data::copying(std::string(70'000, 'x'))));
  EXPECT_TRUE(large.starts_with("\0\x01\x11\xB5\0\0\0\x0A<packet id>\0\0\0\0\0\x01\x11\x91"s));
  EXPECT_TRUE(large.contains("n\0\0\0\0\0\x01\x11\x70x"s));
  EXPECT_EQ(payload("\xFF", Data()), "serializeFailed");
}

TEST(Payload, CarriesTwoFreshIdentifiers) {
  const std::string one = payload("name", Data());
  const std::string two = payload("name", Data());
  EXPECT_EQ(fixedPart(one), fixedPart(two));
  EXPECT_NE(one.substr(8, 16), two.substr(8, 16));
  EXPECT_NE(one.substr(40, 16), two.substr(40, 16));
  EXPECT_NE(one.substr(8, 16), one.substr(40, 16));
  EXPECT_EQ((one[14] & 0xF0) | (one[46] & 0xF0), 0x40);  // version 4
}

TEST(StatusMessage, IsAStatusByteAndAText) {
  EXPECT_EQ(makeStatusContent(ProxyProviderStatus::stopped, "why").characters(), "\0why"s);
  EXPECT_EQ(makeStatusContent(ProxyProviderStatus::started, std::nullopt).characters(), "\1"s);
  EXPECT_EQ(statusMessageName, "ApiExtensionProxyStatusCallback");
}

TEST(AppMessage, IsReadAndWrittenByteForByte) {
  const std::string message = "\0\0\0\x0CupdateConfig\0\0\0\x02{}"s;
  for (const std::string& trailing : {""s, "\0"s, "more"s}) {
    const AppMessage read = readAppMessage(Data::copying(message + trailing)).value();
    EXPECT_EQ(read.name, "updateConfig");
    EXPECT_EQ(read.content.characters(), "{}");
  }
  EXPECT_EQ(makeAppMessage("updateConfig", Data::copying("{}")).characters(), message);
  const AppMessage empty = readAppMessage(makeAppMessage("", Data())).value();
  EXPECT_TRUE(empty.name.empty() && empty.content.isEmpty());
}

TEST(AppMessage, TellsWhatIsMissingOrWrong) {
  const auto failure = [](const std::string& message) {
    // Data of exactly these bytes, so that AddressSanitizer sees any read past them.
    const auto read = readAppMessage(Data::copying(message));
    return read ? "" : read.error();
  };
  const std::string message = "\0\0\0\x03n\xC3\xA9\0\0\0\x02{}"s;
  for (std::size_t length = 0; length < message.size(); ++length) {
    EXPECT_EQ(failure(message.substr(0, length)), length < 4    ? "no name length"
                                                  : length < 7  ? "no name string"
                                                  : length < 11 ? "no content length"
                                                                : "no content data");
  }
  // 32-bit sums would wrap around.
  EXPECT_EQ(failure("\xFF\xFF\xFF\xFC"
                    "abcd"s),
            "no name string");
  EXPECT_EQ(failure("\0\0\0\x01n\xFF\xFF\xFF\xF7{}"s), "no content data");
  EXPECT_EQ(failure("\0\0\0\x02\xFF\xFE"s), "name string decode failed");
}

}  // namespace
}  // namespace tandor::test
