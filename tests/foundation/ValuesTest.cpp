#include <array>
#include <memory>
#include <numeric>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "platform/foundation/AnyValue.h"
#include "platform/foundation/Base64.h"
#include "platform/foundation/Data.h"
#include "platform/foundation/Description.h"
#include "platform/foundation/JSON.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/Text.h"
#include "platform/foundation/UUID.h"

namespace tandor::test {
namespace {

using namespace std::string_literals;

/// Storage on the stack that counts how often it was disposed of.
class CountedStorage final : public DataStorage {
 public:
  std::array<std::uint8_t, 8> bytes = {0, 1, 2, 3, 4, 5, 6, 7};
  int disposals = 0;

 private:
  void dispose() noexcept override { ++disposals; }
};

TEST(Data, SharesItsStorageUntilTheLastValueGoes) {
  CountedStorage storage;
  {
    Data whole(storage, storage.bytes.data(), storage.bytes.size());
    Data part = whole.slice(2, 3);
    const Data copy = part;
    Data moved = std::move(whole);
    EXPECT_TRUE(whole.isEmpty());  // NOLINT(bugprone-use-after-move): what a move leaves behind
    moved = moved.slice(1, 1);
    moved = Data();
    part = copy;
    EXPECT_EQ(part.bytes().data(), storage.bytes.data() + 2);
    EXPECT_EQ(part.count(), 3);
    EXPECT_EQ(storage.disposals, 0);
  }
  EXPECT_EQ(storage.disposals, 1);
}

TEST(Data, AbsorbsOnlyWhatFollowsInTheSameStorage) {
  CountedStorage storage;
  const Data whole(storage, storage.bytes.data(), storage.bytes.size());
  Data front = whole.slice(0, 3);
  EXPECT_FALSE(front.absorb(whole.slice(4, 1)));
  EXPECT_FALSE(front.absorb(Data::copying(whole.slice(3, 1).bytes())));
  EXPECT_FALSE(Data().absorb(Data()));
  EXPECT_EQ(front.count(), 3);
  EXPECT_TRUE(front.absorb(whole.slice(3, 4)));
  front.removeFirst(2);
  EXPECT_EQ(front, whole.slice(2, 5));
  EXPECT_NE(front, whole.slice(2, 6));
  EXPECT_EQ(Data::copying(""), Data());
}

TEST(Data, IsReleasedOnceByManyThreads) {
  for (int round = 0; round < 200; ++round) {
    CountedStorage storage;
    Data last(storage, storage.bytes.data(), 8);
    {
      const std::jthread one([copy = last] { EXPECT_EQ(copy.bytes()[7], 7); });
      const std::jthread two([copy = last] { EXPECT_EQ(copy.slice(1, 1).bytes()[0], 1); });
      last = Data();
    }
    ASSERT_EQ(storage.disposals, 1);
  }
}

TEST(Text, WellFormedUTF8AndItsRepair) {
  const std::string replacement = "\xEF\xBF\xBD";
  struct Case {
    std::string bytes;
    std::string repaired;  // the same as `bytes` when they are well-formed
  };
  const Case cases[] = {
      {"", ""},
      {"a\x7F"s, "a\x7F"s},
      {"\0"s, "\0"s},
      {"\xC2\x80\xDF\xBF", "\xC2\x80\xDF\xBF"},
      {"\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80", "\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80"},
      {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"},
      {"\x80z", replacement + "z"},                               // stray continuation
      {"\xC1\xBF", replacement + replacement},                    // overlong, 2 bytes
      {"\xE0\x9F\xBF", replacement + replacement + replacement},  // overlong, 3 bytes
      {"\xF0\x8F\xBF\xBFz", replacement + replacement + replacement + replacement + "z"},
      {"\xED\xA0\x80", replacement + replacement + replacement},  // surrogate
      {"\xF4\x90\x80\x80", replacement + replacement + replacement + replacement},
      {"\xF5", replacement},
      {"a\xE2\x82", "a" + replacement},  // cut short
      {"\xF0\x9F\x98z", replacement + "z"},
      {"\xE2\xE2\x82\xAC", replacement + "\xE2\x82\xAC"},
      {"\xFF\xFE", replacement + replacement},
  };
  for (const Case& expected : cases) {
    SCOPED_TRACE(tandor::quoted(expected.bytes));
    const Data data = Data::copying(expected.bytes);
    const bool isWellFormed = expected.bytes == expected.repaired;
    EXPECT_EQ(isUTF8(expected.bytes), isWellFormed);
    EXPECT_EQ(decodeUTF8(data.bytes()),
              isWellFormed ? std::optional(expected.bytes) : std::nullopt);
    EXPECT_EQ(decodeUTF8Repairing(data.bytes()), expected.repaired);
  }
}

TEST(Text, ParseDecimal) {
  struct Case {
    std::string_view text;
    std::uint64_t limit;
    std::optional<std::uint64_t> value;
  };
  const Case cases[] = {
      {"0", 65535, 0},
      {"65535", 65535, 65535},
      {"65536", 65535, std::nullopt},
      {"00080", 65535, 80},
      {"", 65535, std::nullopt},
      {"+1", 65535, std::nullopt},
      {"-0", 65535, std::nullopt},
      {" 1", 65535, std::nullopt},
      {"1 ", 65535, std::nullopt},
      {"0x10", 65535, std::nullopt},
      {"1e3", 65535, std::nullopt},
      {"https", 65535, std::nullopt},
      {"1", 0, std::nullopt},
      {"18446744073709551615", UINT64_MAX, UINT64_MAX},
      {"18446744073709551616", UINT64_MAX, std::nullopt},
      {"99999999999999999999999", UINT64_MAX, std::nullopt},
  };
  for (const Case& expected : cases)
    EXPECT_EQ(parseDecimal(expected.text, expected.limit), expected.value) << expected.text;
}

TEST(Base64, KnownGroupsBothWays) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"", ""},
      {"f", "Zg=="},
      {"fo", "Zm8="},
      {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="},
      {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"},
      {"\xFB\xFF\xFE", "+//+"},
  };
  for (const auto& [plain, encoded] : cases) {
    const Data data = Data::copying(plain);
    EXPECT_EQ(encodeBase64(data.bytes()), encoded);
    const auto decoded = decodeBase64(encoded);
    ASSERT_TRUE(decoded.has_value()) << encoded;
    EXPECT_EQ(Data::copying(*decoded), data);
  }
  for (const std::string_view malformed :
       {"Zg", "Zg=", "Z===", "====", "Zg==Zg==", "Zm9 ", "Zm9-", "Zm9\n", "=m9v", "Z=9v"})
    EXPECT_EQ(decodeBase64(malformed), std::nullopt) << malformed;
}

TEST(UUID, IsRandomVersion4) {
  std::set<std::string> seen;
  for (int count = 0; count < 100; ++count) {
    const UUID uuid = UUID::random();
    EXPECT_EQ(uuid.bytes[6] >> 4U, 4);
    EXPECT_EQ(uuid.bytes[8] >> 6U, 2);
    seen.insert(uuid.description());
  }
  std::thread([&] { seen.insert(UUID::random().description()); }).join();
  EXPECT_EQ(seen.size(), 101);
  UUID counted;
  std::iota(counted.bytes.begin(), counted.bytes.end(), std::uint8_t{0xA0});
  EXPECT_EQ(counted.description(), "A0A1A2A3-A4A5-A6A7-A8A9-AAABACADAEAF");
}

TEST(Description, RendersValuesAndCollections) {
  const NSError error("Domain", 7, "words");
  const AnyDictionary dictionary = {
      {"a\"b", "x\\y"},
      {"list", AnyList{true, std::int64_t{-7}, 2.5, nullptr}},
      {"none", AnyDictionary{}},
  };
  EXPECT_EQ(description("te\"xt"), "te\"xt");
  EXPECT_EQ(description(-12), "-12");
  EXPECT_EQ(description(false), "false");
  EXPECT_EQ(description(std::optional<NSError>()), "nil");
  EXPECT_EQ(description(std::optional(error)), "words");
  EXPECT_EQ(description(std::optional<std::string>("text")), "text");
  EXPECT_EQ(description(std::vector<std::string>{"a", "b\n"}), R"(["a", "b\n"])");
  EXPECT_EQ(description(std::vector<std::string>()), "[]");
  EXPECT_EQ(description(dictionary),
            R"(["a\"b": "x\\y", "list": [true, -7, 2.5, nil], "none": [:]])");
  EXPECT_EQ(tandor::quoted("\t\r\x01\x7F\0\xC3\xA9"s), "\"\\t\\r\\u{01}\\u{7F}\\0\xC3\xA9\"");
  EXPECT_EQ(NSError::posix(2).description(), "posix(2: No such file or directory)");
}

TEST(JSON, ListOfStrings) {
  const auto strings = decodeJSONStringList(R"( ["a", "\u00e9\"", ""] )");
  ASSERT_TRUE(strings.has_value());
  EXPECT_EQ(*strings, (std::vector<std::string>{"a", "\xC3\xA9\"", ""}));
  EXPECT_TRUE(decodeJSONStringList("[]").has_value());
  for (const std::string_view wrong : {"", "a,b", "[1,2]", R"(["a",null])", R"(["a",])", "{}",
                                       R"("a")", R"(["a"] x)", R"([["a"]])", "[\"\xFF\"]"})
    EXPECT_FALSE(decodeJSONStringList(wrong).has_value()) << wrong;
  EXPECT_FALSE(decodeJSONStringList(std::string(1'000'000, '[')).has_value());
}

TEST(JSON, DictionaryOfStrings) {
  const auto strings = decodeJSONStringDictionary(R"({"a": "1", "b": "", "a": "2"})");
  ASSERT_TRUE(strings.has_value());
  EXPECT_EQ(*strings, (std::map<std::string, std::string>{{"a", "2"}, {"b", ""}}));
  const std::pair<std::string_view, std::string_view> failures[] = {
      {"", R"(dataCorrupted("not valid JSON"))"},
      {R"({"a": "1")", R"(dataCorrupted("not valid JSON"))"},
      {"[]", R"(typeMismatch("expected an object"))"},
      {R"({"a": "1", "b": 2})", R"(typeMismatch("expected every value to be a string"))"},
      {R"({"a": {}})", R"(typeMismatch("expected every value to be a string"))"},
  };
  for (const auto& [text, error] : failures) {
    const auto decoded = decodeJSONStringDictionary(text);
    ASSERT_FALSE(decoded.has_value()) << text;
    EXPECT_EQ(decoded.error().description(), error);
  }
}

}  // namespace
}  // namespace tandor::test
