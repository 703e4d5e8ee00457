#include "api/fan_out.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace zeltocom;
using namespace std::chrono_literals;

namespace {

// Watches how many slots run at once and on how many threads.
struct Concurrency {
  std::atomic<int> running{0};
  std::atomic<int> most{0};
  std::mutex mutex;
  std::set<std::thread::id> threads;
  std::vector<std::atomic<int>> runs;

  explicit Concurrency(std::size_t slots) : runs(slots) {}

  // Enters slot `i` and stays until `enough()` holds or `longest` passed.
  template <typename Enough>
  void Hold(std::size_t i, Enough enough, std::chrono::milliseconds longest) {
    ++runs[i];
    {
      std::lock_guard lock(mutex);
      threads.insert(std::this_thread::get_id());
    }
    const int now = ++running;
    for (int seen = most; now > seen && !most.compare_exchange_weak(seen, now);) {
    }
    const auto until = std::chrono::steady_clock::now() + longest;
    while (!enough() && std::chrono::steady_clock::now() < until) std::this_thread::sleep_for(100us);
    --running;
  }
  bool EachRanOnce() const {
    return std::ranges::all_of(runs, [](const std::atomic<int>& n) { return n == 1; });
  }
};

}  // namespace

TEST(FanOut, ThousandsOfPortsNeverRunMoreThanTheBoundAtOnce) {
  // Every slot lingers until more than the bound run at once, which one
  // thread per port reaches at once, or for 20 ms.
  constexpr std::size_t kSlots = 1000;
  Concurrency seen(kSlots);
  FanOut(kSlots, [&](std::size_t i) {
    seen.Hold(i, [&] { return seen.most > static_cast<int>(kMaxWorkers); }, 20ms);
  });
  EXPECT_LE(seen.most, static_cast<int>(kMaxWorkers));
  EXPECT_GT(seen.most, 1);
  EXPECT_LE(seen.threads.size(), kMaxWorkers);
  EXPECT_TRUE(seen.EachRanOnce());
}

TEST(FanOut, EightPortsWaitTogetherOnEightThreads) {
  // Eight waits overlap wholly, as eight ports of a station must: each slot
  // waits until all eight run.
  Concurrency seen(8);
  const auto start = std::chrono::steady_clock::now();
  FanOut(8, [&](std::size_t i) { seen.Hold(i, [&] { return seen.most == 8; }, 5000ms); });
  EXPECT_EQ(seen.most, 8);
  EXPECT_EQ(seen.threads.size(), 8u);
  EXPECT_TRUE(seen.EachRanOnce());
  EXPECT_LT(std::chrono::steady_clock::now() - start, 4000ms);
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
    const std::string expected = !needed(i)     ? "skipped"
                                 : i % 3 == 0   ? "set by " + std::to_string(i)
                                 : i % 3 == 1   ? "thrown by " + std::to_string(i)
                                                : "";
    EXPECT_EQ(texts[i], expected) << "slot " << i;
  }
}

TEST(FanOut, NoSlotsStartNoWorkers) {
  bool ran = false;
  EXPECT_TRUE(FanOut(0, [&](std::size_t) { ran = true; }).empty());
  EXPECT_EQ(FanOutWhere(3, [](std::size_t) { return false; }, [&](std::size_t) { ran = true; },
                        "none"),
            (std::vector<std::string>(3, "none")));
  EXPECT_FALSE(ran);
}
