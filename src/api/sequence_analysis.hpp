// What a sequence's intensities say about the light: its runs above and
// below two thresholds, its blinking frequency and duty cycle. Pure
// functions of the samples, so they are tested without a port.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <span>
#include <vector>

namespace zeltocom {

// The scale a series is in. A logarithmic series takes the instrument's
// conversions to compute its thresholds; a linear one never uses them.
struct IntensityScale {
  bool logarithmic = false;
  std::function<int(int)> toLinear;
  std::function<int(int)> toLogarithmic;
};

// A lit run ends at or below `low`, a dark one at or above `high`; samples
// in between keep the state they find.
struct Thresholds {
  int low = 0;
  int high = 0;
};

// Thresholds from the series' extremes and its smallest rise (any fall
// counts whole). `high` stays above `low`, so that a constant series, whose
// formulas give low = high, is one run and not a change at every sample.
Thresholds AutomaticThresholds(std::span<const int> samples, const IntensityScale& scale);

// A stretch of samples on one side of the thresholds.
struct Run {
  int durationMs = 0;
  int level = 0;  // the maximum of a lit run, the minimum of a dark one
};

std::vector<Run> RunsOf(std::span<const int> samples, int periodMs, Thresholds thresholds);

// Blinking as complete runs show it; the partial runs at both ends of the
// series do not count.
struct Blinking {
  bool found = false;   // at least one complete lit and one complete dark run
  float frequency = 0;  // Hz, two decimals
  float dutyCycle = 0;  // percent lit, two decimals
  int cycleCount = 0;   // complete lit runs
};

Blinking BlinkingOf(std::span<const int> samples, int periodMs, Thresholds thresholds);

// One fibre's share of a light running across the fibres.
struct SweepEntry {
  int delay = 0;
  int duration = 0;
  int level = 0;
};

// From the first run: a lit start has no delay, a dark one delays the next run.
SweepEntry SweepFromStart(const std::vector<Run>& runs);
// The first run whose level is not 0; none when there is no such run.
std::optional<std::size_t> ReferenceRun(const std::vector<Run>& runs);
// From the reference run found on an earlier fibre. Runs the pattern does not
// have count as 0.
SweepEntry SweepFromReference(const std::vector<Run>& runs, std::size_t reference);

// The settings of a trial sequence that resolves any light blinking between
// `minHz` and `maxHz`: the longest capture time (no pause between captures)
// that gives 8 samples per cycle of the fastest light, and samples for 4
// cycles of the slowest. None when no sequence holds that (above 125 Hz, or
// more than 9999 samples).
struct TrialSettings {
  int captureTimeMs = 0;
  int sampleCount = 0;
};
std::optional<TrialSettings> TrialFor(double minHz, double maxHz);

// Whether a frequency measured with `periodMs` per sample lies in the range,
// give or take the one sample per cycle a measurement may be off by.
bool WithinResolution(double measuredHz, double minHz, double maxHz, int periodMs);

}  // namespace zeltocom
