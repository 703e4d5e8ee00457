#include "api/sequence_analysis.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>

#include "frame/utils.hpp"

namespace zeltocom {

namespace {

constexpr int64_t kNoStep = 99999;

int ToInt(int64_t value) {
  return static_cast<int>(
      std::clamp<int64_t>(value, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

int64_t Share(double fraction, int64_t range) {
  return static_cast<int64_t>(std::trunc(fraction * static_cast<double>(range)));
}

struct Extremes {
  int64_t max = 0;
  int64_t min = kNoStep;
  int64_t step = kNoStep;
};

Extremes ExtremesOf(std::span<const int> samples) {
  Extremes e;
  if (samples.empty()) return e;
  e.max = std::max<int64_t>(samples[0], 0);
  e.min = std::min<int64_t>(samples[0], kNoStep);
  for (std::size_t i = 0; i < samples.size(); ++i) {
    e.max = std::max<int64_t>(e.max, samples[i]);
    e.min = std::min<int64_t>(e.min, samples[i]);
    if (i == 0) continue;
    const int64_t d = int64_t{samples[i]} - samples[i - 1];
    // Signed on purpose: any fall replaces the step, only rises keep the smallest.
    if (d != 0 && d < e.step) e.step = std::llabs(d);
  }
  return e;
}

// Runs past the end of a pattern count as empty.
Run RunAt(const std::vector<Run>& runs, std::size_t i) { return i < runs.size() ? runs[i] : Run{}; }

}  // namespace

Thresholds AutomaticThresholds(std::span<const int> samples, const IntensityScale& scale) {
  const Extremes e = ExtremesOf(samples);
  int64_t top = e.max;
  int64_t bottom = e.min;
  if (scale.logarithmic) {
    top = scale.toLinear(ToInt(e.max));
    bottom = scale.toLinear(ToInt(e.min));
  }
  const int64_t range = top - bottom;
  // The step stays in the instrument's scale, also against linear extremes.
  Thresholds t{ToInt(std::min(e.step, Share(0.15, range))),
               ToInt(std::max(top - e.step, Share(0.85, range)))};
  if (scale.logarithmic) t = Thresholds{scale.toLogarithmic(t.low), scale.toLogarithmic(t.high)};
  if (t.high <= t.low) t.high = ToInt(int64_t{t.low} + 1);
  return t;
}

std::vector<Run> RunsOf(std::span<const int> samples, int periodMs, Thresholds thresholds) {
  std::vector<Run> runs;
  if (samples.empty()) return runs;
  bool lit = samples[0] >= thresholds.high;
  int length = 0;
  int level = samples[0];
  const auto emit = [&] {
    if (length != 0) runs.push_back(Run{length * periodMs, level});
  };
  for (const int s : samples) {
    const bool changes = lit ? s <= thresholds.low : s >= thresholds.high;
    if (!changes) {
      ++length;
      level = lit ? std::max(level, s) : std::min(level, s);
      continue;
    }
    emit();
    length = 1;
    lit = !lit;
    level = lit ? std::max(level, s) : std::min(level, s);
  }
  emit();
  return runs;
}

Blinking BlinkingOf(std::span<const int> samples, int periodMs, Thresholds thresholds) {
  Blinking result;
  if (samples.empty()) return result;
  std::vector<int> litRuns;
  std::vector<int> darkRuns;
  bool lit = samples[0] >= thresholds.high;
  int length = 0;
  bool firstRun = true;
  for (const int s : samples) {
    const bool changes = lit ? s <= thresholds.low : s >= thresholds.high;
    if (!changes) {
      ++length;
      continue;
    }
    if (length >= 1 && !firstRun) {
      (lit ? litRuns : darkRuns).push_back(length);
      if (lit) ++result.cycleCount;
    }
    length = 1;
    lit = !lit;
    firstRun = false;
  }
  if (litRuns.empty() || darkRuns.empty()) return result;

  const auto mean = [](const std::vector<int>& runs) {
    double sum = 0;
    for (const int r : runs) sum += r;
    return sum / static_cast<double>(runs.size());
  };
  const double meanLit = mean(litRuns);
  const double cycle = mean(darkRuns) + meanLit;
  const double cycleMs = periodMs * cycle;
  result.found = true;
  result.frequency = static_cast<float>(RoundToDecimals(1000.0 / cycleMs, 2));
  result.dutyCycle = static_cast<float>(RoundToDecimals(meanLit * 100.0 / cycle, 2));
  return result;
}

SweepEntry SweepFromStart(const std::vector<Run>& runs) {
  const auto at = [&](std::size_t i) { return RunAt(runs, i); };
  if (at(0).level > 0) return SweepEntry{0, at(0).durationMs, at(0).level};
  return SweepEntry{at(0).durationMs, at(1).durationMs, at(1).level};
}

std::optional<std::size_t> ReferenceRun(const std::vector<Run>& runs) {
  const auto found = std::ranges::find_if(runs, [](const Run& r) { return r.level != 0; });
  if (found == runs.end()) return std::nullopt;
  return static_cast<std::size_t>(found - runs.begin());
}

SweepEntry SweepFromReference(const std::vector<Run>& runs, std::size_t reference) {
  const auto at = [&](std::size_t i) { return RunAt(runs, i); };
  const Run& run = at(reference);
  // Deliberately the level, not the lit state: a dark run above 0 counts as lit.
  if (run.level > 0)
    return SweepEntry{at(reference + 1).durationMs, run.durationMs, at(reference + 1).level};
  return SweepEntry{run.durationMs, 0, 0};
}

std::optional<TrialSettings> TrialFor(double minHz, double maxHz) {
  constexpr double kSamplesPerFastCycle = 8;
  constexpr double kSlowCycles = 4;
  constexpr double kLongestCaptureMs = 999;
  constexpr double kMostSamples = 9999;
  if (!(minHz > 0) || !(maxHz >= minHz)) return std::nullopt;
  const double captureMs =
      std::min(std::floor(1000 / (kSamplesPerFastCycle * maxHz)), kLongestCaptureMs);
  if (!(captureMs >= 1)) return std::nullopt;
  const double samples = std::ceil(kSlowCycles * 1000 / (minHz * captureMs));
  if (!(samples <= kMostSamples)) return std::nullopt;
  return TrialSettings{static_cast<int>(captureMs), static_cast<int>(samples)};
}

bool WithinResolution(double measuredHz, double minHz, double maxHz, int periodMs) {
  const double slowestCycle = 1000 / (minHz * periodMs) + 1;
  const double fastestCycle = std::max(1000 / (maxHz * periodMs) - 1, 1.0);
  return measuredHz >= 1000 / (slowestCycle * periodMs) &&
         measuredHz <= 1000 / (fastestCycle * periodMs);
}

}  // namespace zeltocom
