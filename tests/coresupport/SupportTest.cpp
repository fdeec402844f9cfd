#include <algorithm>
#include <array>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "support/AddressClassification.h"
#include "support/Journal.h"
#include "support/Log.h"
#include "support/SafeSet.h"

namespace tandor::test {
namespace {

TEST(AddressClassification, ReadsDottedTextLeniently) {
  constexpr std::uint32_t ten = 0x0A000001;  // 10.0.0.1
  const std::pair<std::string_view, std::optional<std::uint32_t>> cases[] = {
      {"10.1.2.3", 0x0A010203},
      {"255.255.255.255", 0xFFFFFFFF},
      {"0.0.0.0", 0},
      {"10..0.0.1", ten},
      {".10.0.0.1.", ten},
      {"10.0.0.1.local", ten},
      {"web.10.0.0.1", ten},
      {"10.0.-1.0.1", ten},
      {"+10.0.0.1", ten},
      {"010.0.00000.1", ten},
      {"-0.0.-00.0", 0},
      {"10.0.0.256.1", ten},
      {"10.256.0.1", std::nullopt},
      {"10.0.0", std::nullopt},
      {"1.2.3.4.5", std::nullopt},
      {"10.0.0.1:443", std::nullopt},
      {"10.0.0.+", std::nullopt},
      {"10.0.0.-", std::nullopt},
      {"10.0.0.+-1", std::nullopt},
      {"10.0.0. 1", std::nullopt},
      {"10.0.0.0x1", std::nullopt},
      {"10.0.0.99999999999999999999", std::nullopt},
      {"", std::nullopt},
      {"host.example", std::nullopt},
      {"::1", std::nullopt},
  };
  for (const auto& [text, number] : cases) EXPECT_EQ(ipv4ToUInt32(text), number) << text;
}

TEST(AddressClassification, PrivateRangesToTheirLastAddress) {
  struct Range {
    const char* before;  // the address before the first, where that is outside every range
    const char* first;
    const char* last;
    const char* behind;
  };
  const Range ranges[] = {
      {nullptr, "0.0.0.0", "0.255.255.255", "1.0.0.0"},
      {"9.255.255.255", "10.0.0.0", "10.255.255.255", "11.0.0.0"},
      {"100.63.255.255", "100.64.0.0", "100.127.255.255", "100.128.0.0"},
      {"126.255.255.255", "127.0.0.0", "127.255.255.255", "128.0.0.0"},
      {"169.253.255.255", "169.254.0.0", "169.254.255.255", "169.255.0.0"},
      {"172.15.255.255", "172.16.0.0", "172.31.255.255", "172.32.0.0"},
      {"192.167.255.255", "192.168.0.0", "192.168.255.255", "192.169.0.0"},
      {"198.17.255.255", "198.18.0.0", "198.19.255.255", "198.20.0.0"},
      {"223.255.255.255", "224.0.0.0", "239.255.255.255", "240.0.0.0"},
      {"255.255.255.254", "255.255.255.255", "255.255.255.255", nullptr},
  };
  const auto isPrivate = [](const char* host) { return isPrivateNetwork({host, "443"}); };
  for (const Range& range : ranges) {
    SCOPED_TRACE(range.first);
    EXPECT_TRUE(isPrivate(range.first) && isPrivate(range.last));
    EXPECT_FALSE(range.before != nullptr && isPrivate(range.before));
    EXPECT_FALSE(range.behind != nullptr && isPrivate(range.behind));
  }
  for (const char* host : {"host.example", "::1", "fe80::1", "::ffff:10.0.0.1x", ""})
    EXPECT_FALSE(isPrivate(host)) << host;
}

TEST(AddressClassification, IPv6Literals) {
  for (const char* host : {"::1", "fe80::1", "2001:db8::1", "::ffff:1.2.3.4", "::"})
    EXPECT_TRUE(isIpv6({host, "443"})) << host;
  for (const char* host : {"127.0.0.1", "host.example", "[::1]", "fe80::1%en0", ":::", ""})
    EXPECT_FALSE(isIpv6({host, "443"})) << host;
}

TEST(Log, JoinsItemsVerbatim) {
  struct Described {
    static std::string description() { return "many\nlines"; }
  };
  Journal journal;
  log();
  log("a", 1, true);
  Logger::log("100%s %n", std::string("%@"), std::optional<std::string>(), std::uint8_t{7});
  log("", Described{});
  EXPECT_EQ(journal.take(),
            (Lines{"log: ", "log: a 1 true", "log: 100%s %n %@ nil 7", "log:  many\nlines"}));
}

/// Equal to every other of its number, so that an element can be told from its equal.
struct Numbered {
  int number;
  std::string label;
  friend bool operator==(const Numbered& left, const Numbered& right) {
    return left.number == right.number;
  }
};
struct ByNumber {
  std::size_t operator()(const Numbered& element) const { return std::hash<int>()(element.number); }
};

TEST(SafeSet, KeepsTheEarlierOfEqualElements) {
  SafeSet<Numbered, ByNumber> set;
  EXPECT_TRUE(set.insert({1, "first"}).inserted);
  const auto again = set.insert({1, "second"});
  EXPECT_FALSE(again.inserted);
  EXPECT_EQ(again.memberAfterInsert.label, "first");
  EXPECT_FALSE(set.remove(Numbered{2, ""}).has_value());
  const auto snapshot = set.allItems();
  EXPECT_EQ(set.remove(Numbered{1, ""})->label, "first");
  EXPECT_FALSE(set.remove(Numbered{1, ""}).has_value());
  EXPECT_TRUE(set.allItems().empty());
  EXPECT_EQ(snapshot.at(0).label, "first");
  EXPECT_EQ(set.queue().label(), "SafeSetQueue");
}

TEST(SafeSet, ReleasesOutsideItsQueueWhatWasRemoved) {
  SafeSet<std::shared_ptr<int>> set;
  bool wasOnTheQueue = true;
  auto element = std::shared_ptr<int>(new int(1), [&](const int* number) {
    wasOnTheQueue = set.queue().isCurrent();
    const std::unique_ptr<const int> last(number);
  });
  const std::shared_ptr<int> equalButNoOwner(std::shared_ptr<int>(), element.get());
  set.insert(std::move(element));
  set.remove(equalButNoOwner);
  EXPECT_FALSE(wasOnTheQueue);
}

TEST(SafeSet, ManyThreadsLeaveExactlyWhatTheyDidNotRemove) {
  SafeSet<int> set;
  {
    std::array<std::jthread, 4> threads;
    for (int first = 0; std::jthread & thread : threads) {
      thread = std::jthread([&set, first] {
        for (int number = first; number < first + 500; ++number) {
          EXPECT_TRUE(set.insert(number).inserted);
          EXPECT_LE(set.allItems().size(), 1004);
          if (number % 2 == 1) continue;
          EXPECT_EQ(set.remove(number), number);
        }
      });
      first += 500;
    }
  }
  auto items = set.allItems();
  std::ranges::sort(items);
  ASSERT_EQ(items.size(), 1000);
  for (std::size_t index = 0; index < items.size(); ++index)
    EXPECT_EQ(items[index], static_cast<int>(2 * index + 1));
}

}  // namespace
}  // namespace tandor::test
