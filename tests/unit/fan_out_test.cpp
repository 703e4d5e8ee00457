#include "api/fan_out.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace zeltocom;
using namespace std::chrono_literals;

TEST(FanOut, ThousandsOfPortsNeverRunMoreThanTheBoundAtOnce) {
  // Every slot lingers until more than the bound ran at once, which one
  // thread per port reaches at once, or for 20 ms.
  constexpr std::size_t kSlots = 1000;
  const int bound = static_cast<int>(kMaxWorkers);
  std::atomic<int> running{0};
  std::atomic<int> most{0};
  std::vector<std::atomic<int>> runs(kSlots);
  std::vector<std::thread::id> ranOn(kSlots);
  FanOut(kSlots, [&](std::size_t i) {
    ++runs[i];
    ranOn[i] = std::this_thread::get_id();
    const int now = ++running;
    for (int seen = most; now > seen && !most.compare_exchange_weak(seen, now);) {
    }
    const auto until = std::chrono::steady_clock::now() + 20ms;
    while (most <= bound && std::chrono::steady_clock::now() < until) {
      std::this_thread::sleep_for(100us);
    }
    --running;
  });
  EXPECT_LE(most, bound);
  EXPECT_GT(most, 1);
  EXPECT_LE(std::set<std::thread::id>(ranOn.begin(), ranOn.end()).size(), kMaxWorkers);
  EXPECT_TRUE(std::ranges::all_of(runs, [](const std::atomic<int>& n) { return n == 1; }));
}

TEST(FanOut, UpToTheBoundEachPortHasAThreadOfItsOwn) {
  // Even work that ends at once, before the next worker has started, must
  // not leave a port to wait behind another's.
  for (const std::size_t n : {std::size_t{1}, std::size_t{8}, kMaxWorkers}) {
    std::vector<std::thread::id> ranOn(n);
    FanOut(n, [&](std::size_t i) { ranOn[i] = std::this_thread::get_id(); });
    EXPECT_EQ(std::set<std::thread::id>(ranOn.begin(), ranOn.end()).size(), n) << n << " ports";
  }
}

TEST(FanOut, EachSlotKeepsItsOwnErrorText) {
  // Far more slots than workers: a worker's later slots must neither inherit
  // an earlier slot's text nor lose their own.
  constexpr std::size_t kSlots = 700;
  const auto needed = [](std::size_t i) { return i % 5 != 4; };
  const std::vector<std::string> texts = FanOutWhere(
      kSlots, needed,
      [](std::size_t i) {
        if (i % 3 == 0) SetError(nullptr, "set by " + std::to_string(i));
        if (i % 3 == 1) throw std::runtime_error("thrown by " + std::to_string(i));
      },
      "skipped");
  ASSERT_EQ(texts.size(), kSlots);
  for (std::size_t i = 0; i < kSlots; ++i) {
    const std::string expected = !needed(i)   ? "skipped"
                                 : i % 3 == 0 ? "set by " + std::to_string(i)
                                 : i % 3 == 1 ? "thrown by " + std::to_string(i)
                                              : "";
    EXPECT_EQ(texts[i], expected) << "slot " << i;
  }
}
