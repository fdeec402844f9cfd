#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ipc/AppMessage.h"
#include "ipc/IPCError.h"
#include "ipc/Payload.h"
#include "ipc/StatusMessage.h"

namespace tandor::test {
namespace {

using namespace std::string_literals;
using Bytes = std::vector<std::uint8_t>;

/// The bytes from `offset` on, as text.
std::string part(const Bytes& bytes, std::size_t offset, std::size_t count) {
  const Data data = Data::copying(bytes);
  return offset + count > bytes.size() ? "too short"
                                       : std::string(data.slice(offset, count).characters());
}

Bytes payload(std::string_view name, const std::optional<Data>& content) {
  const auto made = makePayload(name, content);
  EXPECT_TRUE(made.has_value());
  return made.value_or(Bytes());
}

TEST(Payload, ByteForByte) {
  const Bytes bytes = payload("ab", Data::copying("\x01"));
  ASSERT_EQ(bytes.size(), 75);
  EXPECT_EQ(part(bytes, 0, 8), "\0\0\0\x47\0\0\0\x0A"s);
  EXPECT_EQ(part(bytes, 24, 16), "\0\0\0\0\0\0\0\x23\0\0\0\0\0\0\0\0"s);
  EXPECT_EQ(part(bytes, 56, 19),
            "\0\0\0\0\0\0\0\x02"
            "ab\0\0\0\0\0\0\0\x01\x01"s);
}

TEST(Payload, CarriesTwoFreshIdentifiersAndNothingElseThatVaries) {
  const Bytes one = payload("name", Data::copying("content"));
  const Bytes two = payload("name", Data::copying("content"));
  ASSERT_EQ(one.size(), two.size());
  for (const std::size_t identifier : {8U, 40U}) {
    EXPECT_NE(part(one, identifier, 16), part(two, identifier, 16));
    EXPECT_EQ(one[identifier + 6] >> 4U, 4) << "no random UUID";
  }
  EXPECT_NE(part(one, 8, 16), part(one, 40, 16));
  EXPECT_EQ(part(one, 0, 8), part(two, 0, 8));
  EXPECT_EQ(part(one, 24, 16), part(two, 24, 16));
  EXPECT_EQ(part(one, 56, one.size() - 56), part(two, 56, two.size() - 56));
}

TEST(Payload, LengthsCountBytes) {
  const std::string eAcute = "\xC3\xA9";
  EXPECT_EQ(part(payload(eAcute, std::nullopt), 56, 18),
            "\0\0\0\0\0\0\0\x02"s + eAcute + "\0\0\0\0\0\0\0\0"s);
  EXPECT_EQ(part(payload("", Data()), 56, 16), std::string(16, '\0'));
  EXPECT_EQ(payload("n", std::nullopt).size(), payload("n", Data()).size());
  const Bytes large = payload("n", Data::copying(std::string(70'000, 'x')));
  EXPECT_EQ(part(large, 0, 4), "\0\x01\x11\xB5"s);           // 70,069
  EXPECT_EQ(part(large, 24, 8), "\0\0\0\0\0\x01\x11\x91"s);  // 70,033
  EXPECT_EQ(part(large, 65, 8), "\0\0\0\0\0\x01\x11\x70"s);
  EXPECT_EQ(makePayload("\xFF", Data()), std::unexpected(IPCError::serializeFailed()));
}

TEST(StatusMessage, IsAStatusByteAndAText) {
  EXPECT_EQ(makeStatusContent(ProxyProviderStatus::started, std::nullopt).characters(), "\x01");
  EXPECT_EQ(makeStatusContent(ProxyProviderStatus::stopped, "why").characters(), "\0why"s);
  const Bytes started = payload(statusMessageName, Data::copying("\x01"));
  EXPECT_EQ(started.size(), 104);
  EXPECT_EQ(started[3], 100);
  EXPECT_EQ(started[31], 0x40);
  EXPECT_EQ(part(started, 64, 31), "ApiExtensionProxyStatusCallback");
}

TEST(AppMessage, IsReadByteForByte) {
  const std::string message = "\0\0\0\x0CupdateConfig\0\0\0\x02{}"s;
  for (const std::string& trailing : {""s, "\0"s, "more"s}) {
    const auto read = readAppMessage(Data::copying(message + trailing));
    ASSERT_TRUE(read.has_value());
    EXPECT_EQ(read->name, "updateConfig");
    EXPECT_EQ(read->content.characters(), "{}");
  }
  EXPECT_EQ(makeAppMessage("updateConfig", Data::copying("{}")).characters(), message);
  const auto empty = readAppMessage(Data::copying("\0\0\0\0\0\0\0\0"s));
  ASSERT_TRUE(empty.has_value());
  EXPECT_TRUE(empty->name.empty() && empty->content.isEmpty());
}

TEST(AppMessage, TellsWhatIsMissingAtEveryLength) {
  const std::string message = "\0\0\0\x03n\xC3\xA9\0\0\0\x02{}"s;
  for (std::size_t length = 0; length < message.size(); ++length) {
    // A copy of exactly this length, so that AddressSanitizer sees any read past it.
    const auto read = readAppMessage(Data::copying(message.substr(0, length)));
    ASSERT_FALSE(read.has_value()) << length;
    EXPECT_EQ(read.error(), length < 4    ? "no name length"
                            : length < 7  ? "no name string"
                            : length < 11 ? "no content length"
                                          : "no content data")
        << length;
  }
  EXPECT_TRUE(readAppMessage(Data::copying(message)).has_value());
}

TEST(AppMessage, RefusesWhatCannotBe) {
  const std::pair<std::string, std::string_view> cases[] = {
      {"\0\0\0\x05"
       "abcd"s,
       "no name string"},
      {"\xFF\xFF\xFF\xFF"
       "abcd"s,
       "no name string"},
      {"\xFF\xFF\xFF\xFC"
       "abcd"s,
       "no name string"},  // 32-bit sums would wrap to 0
      {"\0\0\0\x02\xFF\xFE"s, "name string decode failed"},
      {"\0\0\0\x02\xFF\xFE\0\0\0\0"s, "name string decode failed"},
      {"\0\0\0\x01n\0\0\0\x03{}"s, "no content data"},
      {"\0\0\0\x01n\xFF\xFF\xFF\xFF{}"s, "no content data"},
      {"\0\0\0\x01n\xFF\xFF\xFF\xF7{}"s, "no content data"},
  };
  for (const auto& [bytes, words] : cases) {
    ASSERT_FALSE(readAppMessage(Data::copying(bytes)).has_value()) << bytes;
    EXPECT_EQ(readAppMessage(Data::copying(bytes)).error(), words) << bytes;
  }
}

TEST(IPCError, PrintedForms) {
  EXPECT_EQ(IPCError::invalidSocketPath("path too long").description(),
            R"(invalidSocketPath(message: "path too long"))");
  EXPECT_EQ(IPCError::bsdError("write failed", 32).description(),
            R"(bsdError(message: "write failed", errno: 32))");
  EXPECT_EQ(IPCError::connAlreadyClosed().description(), "connAlreadyClosed");
  EXPECT_EQ(IPCError::notSupport().description(), "notSupport");
  EXPECT_EQ(IPCError::peerClose().description(), "peerClose");
  EXPECT_EQ(IPCError::serializeFailed().description(), "serializeFailed");
}

}  // namespace
}  // namespace tandor::test
