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
  for (const char* text : {"10.0.0.1", "10..0.0.1", ".10.0.0.1.", "10.0.0.1.local", "web.10.0.0.1",
                           "10.0.-1.0.1", "+10.0.0.1", "010.0.00000.1", "10.0.256.-0.1"})
    EXPECT_EQ(ipv4ToUInt32(text), 0x0A000001) << text;
  EXPECT_EQ(ipv4ToUInt32("255.1.2.3"), 0xFF010203);
  for (const char* text :
       {"10.256.0.1", "10.0.0", "1.2.3.4.5", "10.0.0.1:443", "10.0.0.+", "10.0.0.-", "10.0.0.+-1",
        "10.0.0. 1", "10.0.0.0x1", "10.0.0.99999999999999999999", "", "host.example", "::1"})
    EXPECT_EQ(ipv4ToUInt32(text), std::nullopt) << text;
}

TEST(AddressClassification, PrivateRangesToTheirLastAddress) {
  const auto isPrivate = [](const char* host) { return isPrivateNetwork({host, "443"}); };
  for (const char* host : {"0.0.0.0",     "0.255.255.255",   "10.0.0.0",        "10.255.255.255",
                           "100.64.0.0",  "100.127.255.255", "127.0.0.0",       "127.255.255.255",
                           "169.254.0.0", "169.254.255.255", "172.16.0.0",      "172.31.255.255",
                           "192.168.0.0", "192.168.255.255", "198.18.0.0",      "198.19.255.255",
                           "224.0.0.0",   "239.255.255.255", "255.255.255.255", "web.10.0.0.1"})
    EXPECT_TRUE(isPrivate(host)) << host;
  for (const char* host : {"1.0.0.0",
                           "9.255.255.255",
                           "11.0.0.0",
                           "100.63.255.255",
                           "100.128.0.0",
                           "126.255.255.255",
                           "128.0.0.0",
                           "169.253.255.255",
                           "169.255.0.0",
                           "172.15.255.255",
                           "172.32.0.0",
                           "192.167.255.255",
                           "192.169.0.0",
                           "198.17.255.255",
                           "198.20.0.0",
                           "223.255.255.255",
                           "240.0.0.0",
                           "255.255.255.254",
                           "host.example",
                           "::1",
                           "fe80::1",
                           "10.0.0.1:443",
                           ""})
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
  int number = 1;
  set.insert(std::shared_ptr<int>(
      &number, [&](const int* /*number*/) { wasOnTheQueue = set.queue().isCurrent(); }));
  set.remove(std::shared_ptr<int>(std::shared_ptr<int>(), &number));  // equal, but owns nothing
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
          if (number % 2 == 0) set.remove(number);
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
