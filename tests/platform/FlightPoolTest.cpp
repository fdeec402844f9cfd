#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/linux/FlightPool.h"

namespace tandor::test {
namespace {

using Bytes = std::vector<std::uint8_t>;

/// Flights that come and go in any order, over many blocks: each keeps its bytes, also when the
/// pool goes before it and when it goes on another thread.
TEST(FlightPool, FlightsKeepTheirBytes) {
  std::minstd_rand random(1);  // NOLINT(*-msc51-cpp): the same ones every time
  auto pool = std::make_unique<FlightPool>();
  std::vector<std::pair<Bytes, Data>> waiting;
  for (int round = 0; round < 20'000; ++round) {
    const bool isLong = round % 1000 == 0;
    Bytes bytes(random() % (isLong ? 40'000 : 700));
    std::ranges::generate(bytes, [&] { return static_cast<std::uint8_t>(random()); });
    Data flight = pool->copy(bytes);
    waiting.emplace_back(std::move(bytes), std::move(flight));
    while (waiting.size() > (round % 2000 < 1000 ? 400 : 0)) {
      std::swap(waiting[random() % waiting.size()], waiting.back());
      ASSERT_TRUE(std::ranges::equal(waiting.back().second.bytes(), waiting.back().first));
      waiting.pop_back();
    }
  }
  const Bytes last{1, 2, 3};
  Data flight = pool->copy(last);
  pool = nullptr;
  std::jthread([&last, flight = std::move(flight)] {
    EXPECT_TRUE(std::ranges::equal(flight.bytes(), last));
  });
}

}  // namespace
}  // namespace tandor::test
