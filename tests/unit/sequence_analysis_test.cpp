// Thresholds, runs, blinking and trial settings from sample series alone.
#include <gtest/gtest.h>

#include <vector>

#include "api/sequence_analysis.hpp"

using namespace zeltocom;

namespace {

const IntensityScale kLinear{};

std::vector<std::pair<int, int>> Runs(const std::vector<int>& samples, int periodMs,
                                      const IntensityScale& scale = kLinear) {
  std::vector<std::pair<int, int>> runs;
  for (const zeltocom::Run& r : RunsOf(samples, periodMs, AutomaticThresholds(samples, scale))) {
    runs.emplace_back(r.durationMs, r.level);
  }
  return runs;
}

Blinking BlinkingIn(const std::vector<int>& samples, int periodMs) {
  return BlinkingOf(samples, periodMs, AutomaticThresholds(samples, kLinear));
}

}  // namespace

TEST(PatternAnalysis, RunsOfARisingAndFallingSeries) {
  const std::vector<int> samples = {0, 0, 100, 100, 0};
  const Thresholds t = AutomaticThresholds(samples, kLinear);
  EXPECT_EQ(t.low, 15);
  EXPECT_EQ(t.high, 85);
  EXPECT_EQ(Runs(samples, 10), (std::vector<std::pair<int, int>>{{20, 0}, {20, 100}, {10, 0}}));
  // Starting lit; levels are the maximum of lit and the minimum of dark runs.
  EXPECT_EQ(Runs({90, 100, 50, 0, 10, 0}, 1), (std::vector<std::pair<int, int>>{{3, 100}, {3, 0}}));
}

TEST(PatternAnalysis, AConstantSeriesIsOneRun) {
  for (const int level : {0, 7, 5000}) {
    EXPECT_EQ(Runs(std::vector<int>(6, level), 10), (std::vector<std::pair<int, int>>{{60, level}}))
        << level;
    EXPECT_FALSE(BlinkingIn(std::vector<int>(6, level), 10).found) << level;
  }
  EXPECT_TRUE(Runs({}, 10).empty());
}

TEST(PatternAnalysis, LogarithmicSeriesTakeThresholdsThroughTheLinearScale) {
  IntensityScale log;
  log.logarithmic = true;
  log.toLinear = [](int v) { return v * 2; };
  log.toLogarithmic = [](int v) { return v / 2; };
  // Linear extremes 2000 and 0, step 1000 in the log scale: low min(1000, 300),
  // high max(2000 - 1000, 1700), both halved back.
  const Thresholds t = AutomaticThresholds(std::vector<int>{0, 1000, 0, 1000}, log);
  EXPECT_EQ(t.low, 150);
  EXPECT_EQ(t.high, 850);
}

TEST(FrequencyAnalysis, CompleteRunsGiveFrequencyAndDutyCycle) {
  const Blinking fast = BlinkingIn({0, 100, 0, 100, 0}, 1);
  EXPECT_TRUE(fast.found);
  EXPECT_FLOAT_EQ(fast.frequency, 500.0f);
  EXPECT_FLOAT_EQ(fast.dutyCycle, 50.0f);
  EXPECT_EQ(fast.cycleCount, 2);

  std::vector<int> slow;
  for (int level : {0, 100, 0, 100}) slow.insert(slow.end(), 5, level);
  const Blinking tenHz = BlinkingIn(slow, 10);
  EXPECT_FLOAT_EQ(tenHz.frequency, 10.0f);
  EXPECT_FLOAT_EQ(tenHz.dutyCycle, 50.0f);
  EXPECT_EQ(tenHz.cycleCount, 1);

  // One change only: both runs are partial.
  EXPECT_FALSE(BlinkingIn({0, 0, 100, 100}, 10).found);
}

TEST(SweepAnalysis, EntriesFromTheFirstRunsOrTheReferenceRun) {
  const std::vector<zeltocom::Run> litFirst = {{20, 900}, {40, 0}};
  const std::vector<zeltocom::Run> darkFirst = {{20, 0}, {30, 800}, {10, 0}};
  EXPECT_EQ(SweepFromStart(litFirst).duration, 20);
  const SweepEntry delayed = SweepFromStart(darkFirst);
  EXPECT_EQ(delayed.delay, 20);
  EXPECT_EQ(delayed.duration, 30);
  EXPECT_EQ(delayed.level, 800);

  EXPECT_EQ(ReferenceRun(darkFirst), 1u);
  EXPECT_EQ(ReferenceRun({{100, 0}}), std::nullopt);
  const SweepEntry referenced = SweepFromReference(darkFirst, 1);
  EXPECT_EQ(referenced.delay, 10);
  EXPECT_EQ(referenced.duration, 30);
  EXPECT_EQ(referenced.level, 0);
  // A reference past the fibre's runs reads as empty runs.
  EXPECT_EQ(SweepFromReference(litFirst, 5).delay, 0);
}

TEST(TrialSettings, EightSamplesPerFastCycleAndFourSlowCycles) {
  const std::optional<TrialSettings> fiveHz = TrialFor(2, 10);
  ASSERT_TRUE(fiveHz);
  EXPECT_EQ(fiveHz->captureTimeMs, 12);
  EXPECT_EQ(fiveHz->sampleCount, 167);
  EXPECT_EQ(TrialFor(125, 125)->captureTimeMs, 1);
  EXPECT_EQ(TrialFor(0.01, 0.01)->captureTimeMs, 999);
  for (const auto& [min, max] :
       std::vector<std::pair<double, double>>{{150, 250}, {0.1, 100}, {0, 10}, {10, 5}, {-1, 10}}) {
    EXPECT_FALSE(TrialFor(min, max)) << min << " to " << max;
  }
  // One sample per cycle either way still counts.
  EXPECT_TRUE(WithinResolution(9.5, 2, 10, 12));
  EXPECT_FALSE(WithinResolution(14, 2, 10, 12));
  EXPECT_FALSE(WithinResolution(1, 2, 10, 12));
}
