#include <array>
#include <thread>

#include <gtest/gtest.h>

#include "platform/foundation/Base64.h"
#include "platform/foundation/Data.h"
#include "platform/foundation/JSON.h"
#include "platform/foundation/Text.h"

namespace tandor::test {
namespace {

using namespace std::string_literals;

/// Storage on the stack that counts how often it was disposed of.
class CountedStorage final : public DataStorage {
 public:
  CountedStorage() : DataStorage(nullptr) { setFirst(bytes_.data()); }
  int disposals = 0;
  [[nodiscard]] Data all() { return {*this, 0, bytes_.size()}; }

 private:
  void dispose() noexcept override { ++disposals; }
  std::array<std::uint8_t, 8> bytes_ = {0, 1, 2, 3, 4, 5, 6, 7};
};

TEST(Data, IsReleasedOnceByManyThreads) {
  for (int round = 0; round < 200; ++round) {
    CountedStorage storage;
    Data last = storage.all();
    {
      const std::jthread one([copy = last] { EXPECT_EQ(copy.bytes()[7], 7); });
      const std::jthread two([copy = last] { EXPECT_EQ(copy.slice(1, 1).bytes()[0], 1); });
      last = Data();
    }
    ASSERT_EQ(storage.disposals, 1);
  }
}

TEST(Text, WellFormedUTF8AndItsRepair) {
  for (const std::string& text :
       {""s, "a\x7F\0"s, "\xC2\x80\xDF\xBF"s, "\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80"s,
        "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"s}) {
    EXPECT_EQ(decodeUTF8(Data::copying(text).bytes()), text);
    EXPECT_EQ(decodeUTF8Repairing(Data::copying(text).bytes()), text);
  }
  // With ? for the replacement character.
  const std::pair<std::string, std::string> malformed[] = {
      {"\x80z", "?z"},         {"\xC1\xBF", "??"},
      {"\xE0\x9F\xBF", "???"}, {"\xF0\x8F\xBF\xBFz", "????z"},
      {"\xED\xA0\x80", "???"}, {"\xF4\x90\x80\x80", "????"},
      {"\xF5", "?"},           {"a\xE2\x82", "a?"},
      {"\xF0\x9F\x98z", "?z"}, {"\xE2\xE2\x82\xAC", "?\xE2\x82\xAC"},
      {"\xFF\xFE", "??"}};
  for (const auto& [bytes, shown] : malformed) {
    std::string repaired = decodeUTF8Repairing(Data::copying(bytes).bytes());
    for (std::size_t at = 0; (at = repaired.find("\xEF\xBF\xBD")) != std::string::npos;)
      repaired.replace(at, 3, "?");
    EXPECT_EQ(repaired, shown);
    EXPECT_EQ(decodeUTF8(Data::copying(bytes).bytes()), std::nullopt) << shown;
  }
}

TEST(Base64, KnownGroupsBothWays) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"\xFB\xFF\xFE", "+//+"}};
  for (const auto& [plain, encoded] : cases) {
    EXPECT_EQ(encodeBase64(Data::copying(plain).bytes()), encoded);
    EXPECT_EQ(Data::copying(decodeBase64(encoded).value()).characters(), plain);
  }
  for (const char* malformed : {"Zg", "Zg=", "Z===", "====", "Zg==Zg==", "Zm9-", "Zm9\n", "Z=9v"})
    EXPECT_EQ(decodeBase64(malformed), std::nullopt) << malformed;
}

TEST(JSON, OnlyStrings) {
  EXPECT_EQ(decodeJSONStringList(R"( ["a", "\u00e9\"", ""] )").value(),
            (std::vector<std::string>{"a", "\xC3\xA9\"", ""}));
  for (const std::string& text : {""s, R"(["a",null])"s, R"(["a",])"s, R"(["a"] x)"s, R"([["a"]])"s,
                                  "[\"\xFF\"]"s, std::string(1'000'000, '[')})
    EXPECT_FALSE(decodeJSONStringList(text).has_value());
}

}  // namespace
}  // namespace tandor::test
