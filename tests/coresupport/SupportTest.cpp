#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/AddressClassification.h"
#include "support/SafeSet.h"

namespace tandor::test {
namespace {

std::vector<std::string> wordsOf(const std::string& text) {
  std::istringstream words(text);
  return {std::istream_iterator<std::string>(words), {}};
}

TEST(AddressClassification, ReadsDottedTextLeniently) {
  for (const std::string& text :
       wordsOf("10.0.0.1 10..0.0.1 .10.0.0.1. 10.0.0.1.local web.10.0.0.1 10.0.-1.0.1 +10.0.0.1 "
               "010.0.00000.1 10.0.256.-0.1"))
    EXPECT_EQ(ipv4ToUInt32(text), 0x0A000001) << text;
  EXPECT_EQ(ipv4ToUInt32("255.1.2.3"), 0xFF010203);
  for (const std::string& text :
       wordsOf("10.256.0.1 10.0.0 1.2.3.4.5 10.0.0.1:443 10.0.0.+ 10.0.0.- 10.0.0.+-1 10.0.0.0x1 "
               "10.0.0.99999999999999999999  host.example ::1"))
    EXPECT_EQ(ipv4ToUInt32(text), std::nullopt) << text;
  EXPECT_EQ(ipv4ToUInt32("10.0.0. 1"), std::nullopt);
}

TEST(AddressClassification, PrivateRangesToTheirLastAddress) {
  for (const std::string& host :
       wordsOf("0.0.0.0 0.255.255.255 10.0.0.0 10.255.255.255 100.64.0.0 100.127.255.255 127.0.0.0 "
               "127.255.255.255 169.254.0.0 169.254.255.255 172.16.0.0 172.31.255.255 192.168.0.0 "
               "192.168.255.255 198.18.0.0 198.19.255.255 224.0.0.0 239.255.255.255 "
               "255.255.255.255 web.10.0.0.1"))
    EXPECT_TRUE(isPrivateNetwork({host, "443"})) << host;
  for (const std::string& host :
       wordsOf("1.0.0.0 9.255.255.255 11.0.0.0 100.63.255.255 100.128.0.0 126.255.255.255 "
               "128.0.0.0 169.253.255.255 169.255.0.0 172.15.255.255 172.32.0.0 192.167.255.255 "
               "192.169.0.0 198.17.255.255 198.20.0.0 223.255.255.255 240.0.0.0 255.255.255.254 "
               "host.example ::1 fe80::1 10.0.0.1:443 "))
    EXPECT_FALSE(isPrivateNetwork({host, "443"})) << host;
  for (const std::string& host : wordsOf("::1 fe80::1 2001:db8::1 ::ffff:1.2.3.4 ::"))
    EXPECT_TRUE(isIpv6({host, "443"})) << host;
  for (const std::string& host : wordsOf("127.0.0.1 host.example [::1] fe80::1%en0 ::: "))
    EXPECT_FALSE(isIpv6({host, "443"})) << host;
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

}  // namespace
}  // namespace tandor::test
