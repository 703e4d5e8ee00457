// Thresholds, runs, blinking and trial settings from sample series alone.
#include <gtest/gtest.h>

#include <tuple>
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

TEST(PatternAnalysis, AutomaticThresholds) {
  IntensityScale log;
  log.logarithmic = true;
  log.toLinear = [](int v) { return v * 2; };
  log.toLogarithmic = [](int v) { return v / 2; };
  const struct {
    const char* what;
    std::vector<int> samples;
    int low, high;
    const IntensityScale& scale = kLinear;
  } rows[] = {
      // low = min(step, 0.15 range), high = max(max - step, 0.85 range)
      {"worked series", {0, 0, 100, 100, 0}, 15, 85},
      {"products truncated", {0, 99}, 14, 84},
      {"any fall replaces the step", {0, 10, 1000, 0}, 150, 850},
      {"the smallest rise is the step", {0, 100, 105, 110}, 5, 105},
      {"absolute, not above the minimum", {1000, 1100, 1000}, 15, 1000},
      // Linear extremes 2000 and 0, step 1000 in the log scale: low min(1000,
      // 300), high max(2000 - 1000, 1700), both halved back.
      {"through the linear scale", {0, 1000, 0, 1000}, 150, 850, log},
  };
  for (const auto& row : rows) {
    const Thresholds t = AutomaticThresholds(row.samples, row.scale);
    EXPECT_EQ(std::pair(t.low, t.high), std::pair(row.low, row.high)) << row.what;
  }
}

TEST(PatternAnalysis, RunsEndAtTheThresholdsThemselves) {
  using Pairs = std::vector<std::pair<int, int>>;
  const struct {
    const char* what;
    std::vector<int> samples;  // automatic thresholds 15 and 85 but in the last row
    Pairs runs;
  } rows[] = {
      {"rising and falling", {0, 0, 100, 100, 0}, {{20, 0}, {20, 100}, {10, 0}}},
      {"a sample equal to low ends a lit run",
       {0, 100, 100, 15, 15, 100},
       {{10, 0}, {20, 100}, {20, 15}, {10, 100}}},
      {"a sample equal to high starts one",
       {0, 100, 0, 85, 85, 0},
       {{10, 0}, {10, 100}, {10, 0}, {20, 85}, {10, 0}}},
      // levels are the maximum of lit and the minimum of dark runs
      {"starting lit", {90, 100, 50, 0, 10, 0}, {{30, 100}, {30, 0}}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    EXPECT_EQ(Runs(row.samples, 10), row.runs);
  }
}

TEST(PatternAnalysis, AConstantSeriesIsOneRun) {
  for (const int level : {0, 7, 5000}) {
    EXPECT_EQ(Runs(std::vector<int>(6, level), 10), (std::vector<std::pair<int, int>>{{60, level}}))
        << level;
    EXPECT_FALSE(BlinkingIn(std::vector<int>(6, level), 10).found) << level;
  }
  EXPECT_TRUE(Runs({}, 10).empty());
}

TEST(FrequencyAnalysis, CompleteRunsGiveFrequencyAndDutyCycle) {
  const struct {
    std::vector<int> samples;
    int periodMs;
    std::tuple<bool, float, float, int> blinking;  // found, Hz, duty cycle, cycles
  } rows[] = {
      {{0, 100, 0, 100, 0}, 1, {true, 500, 50, 2}},
      // One change only: both runs are partial.
      {{0, 0, 100, 100}, 10, {false, 0, 0, 0}},
      // Samples equal to the automatic low (15) end lit runs, equal to high
      // (85) dark ones.
      {{0, 100, 15, 100, 15, 100, 0}, 1, {true, 500, 50, 3}},
      {{100, 0, 85, 0, 85, 0, 100}, 1, {true, 500, 50, 2}},
  };
  for (const auto& row : rows) {
    const Blinking b = BlinkingIn(row.samples, row.periodMs);
    EXPECT_EQ(std::tuple(b.found, b.frequency, b.dutyCycle, b.cycleCount), row.blinking)
        << ::testing::PrintToString(row.samples);
  }
}

TEST(SweepAnalysis, EntriesFromTheReferenceRun) {
  const auto fields = [](const SweepEntry& e) { return std::tuple(e.delay, e.duration, e.level); };
  const std::vector<zeltocom::Run> darkFirst = {{20, 0}, {30, 800}, {10, 0}};
  EXPECT_EQ(ReferenceRun(darkFirst), 1u);
  EXPECT_EQ(ReferenceRun({{100, 0}}), std::nullopt);
  EXPECT_EQ(fields(SweepFromReference(darkFirst, 1)), std::tuple(10, 30, 0));
  // A reference past the fibre's runs reads as empty runs.
  EXPECT_EQ(SweepFromReference(darkFirst, 5).delay, 0);
}

TEST(TrialSettings, EightSamplesPerFastCycleAndFourSlowCycles) {
  // The fastest and slowest lights a sequence resolves.
  EXPECT_EQ(TrialFor(125, 125).value_or(TrialSettings{}).captureTimeMs, 1);
  EXPECT_EQ(TrialFor(0.01, 0.01).value_or(TrialSettings{}).captureTimeMs, 999);
  for (const auto& [min, max] :
       std::vector<std::pair<double, double>>{{150, 250}, {0.1, 100}, {0, 10}, {10, 5}, {-1, 10}}) {
    EXPECT_FALSE(TrialFor(min, max)) << min << " to " << max;
  }
  // One sample per cycle either way still counts.
  EXPECT_TRUE(WithinResolution(9.5, 2, 10, 12));
  EXPECT_FALSE(WithinResolution(14, 2, 10, 12));
  EXPECT_FALSE(WithinResolution(1, 2, 10, 12));
}
