// Sequences: bursts of captures that the instrument takes by itself, their
// download fibre by fibre, and the pattern and frequency of what they saw.
#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "api/common.hpp"
#include "api/sequence_analysis.hpp"
#include "api/sequence_lines.hpp"
#include "device/exchange.hpp"
#include "device/intensity_scale.hpp"
#include "device/settings.hpp"
#include "frame/errors.hpp"
#include "frame/registry.hpp"
#include "frame/utils.hpp"
#include "zeltocom.h"

using namespace zeltocom;

namespace {

constexpr const char* kNotSetUp = "Sequece has not been set up.";
constexpr const char* kNotCaptured = "Sequece Capture has not been done yet.";
constexpr const char* kFiberOutOfRange = "Fiber out of range";
constexpr TimeoutMs kSettingTimeoutMs = 100;

// Runs `body` on the instrument that holds the open port's line, with the
// line held for the whole call.
template <typename Body>
int OnSequencePort(const char* devPath, Body body) {
  return Guarded(-1, [&](Call& call) {
    const std::optional<HeldPort> port =
        call.Hold(PortsList_GetByDevPath(Arg(devPath)), "The port is not in use");
    return port ? body(port->owner()) : -1;
  });
}

bool RequireSetUp(s_CommPort* device) {
  if (device->sequence.samples >= 0 && device->sequence.timeoutMs >= 0) return true;
  SetError(device, kNotSetUp);
  return false;
}

bool RequireCaptured(s_CommPort* device) {
  if (device->capture.sequence) return true;
  SetError(device, kNotCaptured);
  return false;
}

bool RequireGiven(s_CommPort* device, bool allGiven) {
  if (!allGiven) SetError(device, kNoBuffer);
  return allGiven;
}

bool RequireBuffers(s_CommPort* device, std::initializer_list<const void*> buffers) {
  return RequireGiven(device, std::ranges::find(buffers, nullptr) == buffers.end());
}

bool RequireFiber(s_CommPort* device, int fiber) {
  CMD_LoadSettings_NumFibers(device);
  if (fiber >= 1 && fiber <= device->settings.numFibers) return true;
  SetError(device, kFiberOutOfRange);
  return false;
}

// The samples a host passes in: as many as the sequence set up.
std::span<const int> SamplesOf(const s_CommPort* device, const int* intensities) {
  return {intensities, static_cast<std::size_t>(device->sequence.samples)};
}

// ---- Setup and capture ----------------------------------------------------

struct SequenceSettings {
  unsigned startDelay = 0;
  unsigned captureTime = 0;
  unsigned timeBetweenCaptures = 0;
  int sampleCount = 0;
};

bool SettingsAccepted(s_CommPort* device, const SequenceSettings& s) {
  const char* refusal = nullptr;
  if (s.startDelay > 999) {
    refusal = "Parameter StartDelay is out of range [0, 999]ms";
  } else if (s.captureTime > 999) {
    refusal = "Parameter CaptureTime is out of range [0, 999]ms";
  } else if (s.timeBetweenCaptures > 999) {
    refusal = "Parameter TimeBetweenCaptures is out of range [0, 999]ms";
  } else if (s.sampleCount < 1 || s.sampleCount > 9999) {
    refusal = "Parameter SampleCount is out of range [1, 9999]";
  }
  if (refusal != nullptr) SetError(device, refusal);
  return refusal == nullptr;
}

// One set-up command; its result, with `failure` as the error unless 1.
int SendSequenceCommand(s_CommPort* device, const std::string& command, TimeoutMs timeoutMs,
                        const char* failure, std::string* answer) {
  const int result = CMD_SendCommand(device, command, timeoutMs, answer);
  if (result != 1) SetError(device, failure);
  return result;
}

int SendSetting(s_CommPort* device, const std::string& command, const char* failure) {
  return SendSequenceCommand(device, command, kSettingTimeoutMs, failure, nullptr);
}

int SetUpSequence(s_CommPort* device, const SequenceSettings& s, int setMode) {
  if (!SettingsAccepted(device, s)) return -1;
  const char* form = setMode == 1 ? "SET" : "PUT";
  const struct {
    const char* name;
    unsigned value;
    const char* failure;
  } steps[] = {
      {"SEQUENCESTARTDELAY", s.startDelay, "Unable to set Initial Capture delay"},
      {"SEQUENCECAPTURE", s.captureTime, "Unable to set Capture Time"},
      {"SEQUENCEWAIT", s.timeBetweenCaptures, "Unable to set Time between Captures"},
      {"SEQUENCENUMBER", static_cast<unsigned>(s.sampleCount), "Unable to set Number of samples"},
  };
  for (const auto& step : steps) {
    const int result =
        SendSetting(device, StringPrintf("%s%s%03u", form, step.name, step.value), step.failure);
    if (result != 1) return result;
  }
  const int period = static_cast<int>(s.captureTime + s.timeBetweenCaptures);
  device->sequence.samples = s.sampleCount;
  device->sequence.periodMs = period;
  device->sequence.timeoutMs =
      static_cast<TimeoutMs>(s.startDelay) + TimeoutMs{period} * s.sampleCount + 500;
  return 1;
}

// Runs the set-up burst; the instrument's closing answer stays in `answer`.
int CaptureSequence(s_CommPort* device, int fiber, std::string* answer) {
  CMD_LoadSettings_NumFibers(device);
  if (fiber < 0 || fiber > device->settings.numFibers) {
    SetError(device, "Wrong Fiber number!");
    return -1;
  }
  if (!RequireSetUp(device)) return -1;
  int result = 0;
  if (fiber == 0) {
    result = SendSetting(device, "PUTSEQUENCEMODE0", "Unable to set Sequence Mode");
  } else {
    result = SendSetting(device, "PUTSEQUENCEMODE1", "Unable to set Sequence Mode");
    if (result == 1) {
      result = SendSetting(device, StringPrintf("PUTSEQUENCECHANNEL%02d", fiber),
                           "Unable to set Sequence Channel");
    }
  }
  if (result != 1) return result;
  result = SendSequenceCommand(device, "CS", device->sequence.timeoutMs,
                               "Error detected while trying to perform a Sequence Capture", answer);
  if (result == 1) device->capture.sequence = true;
  return result;
}

// ---- Readouts ---------------------------------------------------------------

// What a readout asks for and the longest line of its answer.
struct Readout {
  const char* command;
  int charsPerLine;
};

constexpr Readout kIntensity{"GETINTENSITY", 11};
constexpr Readout kXyI{"GETxyI", 19};
constexpr Readout kHSI{"GETHSI", 22};
constexpr Readout kRGBI{"GETRGBI", 23};
constexpr Readout kCCT{"GETCCT", 18};
constexpr Readout kWavelength{"GETWAVELENGTH", 11};

// The host's arrays a readout fills, one per field of its lines.
using Columns = std::initializer_list<SampleColumn>;

bool RequireColumns(s_CommPort* device, Columns columns) {
  const auto missing = [](const SampleColumn& column) {
    return std::visit([](const auto* array) { return array == nullptr; }, column);
  };
  return RequireGiven(device, std::ranges::none_of(columns, missing));
}

// Room for every line at the line's speed, twice over.
TimeoutMs ReadoutTimeoutMs(const s_CommPort* device, int charsPerLine, int samples) {
  const auto lineMs = static_cast<TimeoutMs>(std::ceil(charsPerLine * device->charTimeMs));
  return lineMs * samples * 2 + 20;
}

int DownloadSequence(s_CommPort* device, int fiber, const Readout& readout, Columns columns) {
  if (!RequireFiber(device, fiber) || !RequireSetUp(device) || !RequireCaptured(device)) return -1;
  const int samples = device->sequence.samples;
  const TimeoutMs timeout = ReadoutTimeoutMs(device, readout.charsPerLine, samples);
  // Without 0x04 the readout has no end of its own: one line per sample.
  const std::string_view marker = device->eotFormat.view();
  const End end = Contains(marker, "\x04") ? End::Marker(marker) : End::Lines(samples, marker);
  const Reply answer =
      Exchange(device, StringPrintf("%s%02d", readout.command, fiber), end.Trimmed(), timeout);
  if (answer.outcome == Outcome::NotSent) {
    SetError(device, "Unable to send command");
    return -1;
  }
  if (!answer.answered()) {
    SetError(device, "Unexpected error detected while trying to retrieve the test results");
    return 0;
  }
  StoreSamples(answer.text, samples, std::span(columns.begin(), columns.end()));
  return 1;
}

int ReadSequence(const char* devPath, int fiber, const Readout& readout, Columns columns) {
  return OnSequencePort(devPath, [&](s_CommPort* device) {
    if (!RequireColumns(device, columns)) return -1;
    return DownloadSequence(device, fiber, readout, columns);
  });
}

// ---- Pattern and frequency ---------------------------------------------------

// The device's intensity scale, with the conversions of its model. The
// automatic capture range applies: a sequence takes no range of its own.
IntensityScale ScaleOf(s_CommPort* device) {
  CMD_LoadSettings_IntensityMode(device);
  IntensityScale scale;
  scale.logarithmic = device->settings.current->intensityMode == IntensityMode::Logarithmic;
  scale.toLinear = [device](int v) { return AnalyserIntensityLogToLin(device, v, 0, 0); };
  scale.toLogarithmic = [device](int v) { return AnalyserIntensityLinToLog(device, v, 0, 0); };
  return scale;
}

// The stored thresholds, each one not fixed taken from the series.
Thresholds PatternThresholds(s_CommPort* device, std::span<const int> samples) {
  const Thresholds stored{device->pattern.low, device->pattern.high};
  if (stored.low != -1 && stored.high != -1) return stored;
  const Thresholds automatic = AutomaticThresholds(samples, ScaleOf(device));
  return Thresholds{stored.low != -1 ? stored.low : automatic.low,
                    stored.high != -1 ? stored.high : automatic.high};
}

std::vector<Run> PatternOf(s_CommPort* device, std::span<const int> samples) {
  return RunsOf(samples, device->sequence.periodMs, PatternThresholds(device, samples));
}

int GetPattern(s_CommPort* device, const int* intensities, int* count, int* durations,
               int* levels) {
  if (!RequireSetUp(device) || !RequireBuffers(device, {intensities, count, durations, levels})) {
    return -1;
  }
  const std::vector<Run> runs = PatternOf(device, SamplesOf(device, intensities));
  *count = static_cast<int>(runs.size());
  for (std::size_t i = 0; i < runs.size(); ++i) {
    durations[i] = runs[i].durationMs;
    levels[i] = runs[i].level;
  }
  return 1;
}

int GetSweepingPattern(s_CommPort* device, int fiberCount, int mode, int* delays, int* durations,
                       int* levels) {
  if (!RequireSetUp(device)) return -1;
  if (fiberCount < 1) return 1;
  if (!RequireBuffers(device, {delays, durations, levels})) return -1;
  std::fill_n(delays, fiberCount, 0);
  std::fill_n(durations, fiberCount, 0);
  std::fill_n(levels, fiberCount, 0);

  std::vector<int> samples(static_cast<std::size_t>(device->sequence.samples));
  std::optional<std::size_t> reference;
  for (int fiber = 1; fiber <= fiberCount; ++fiber) {
    // Unreadable lines leave their place: 0, not the last fibre's.
    std::ranges::fill(samples, 0);
    const int read = DownloadSequence(device, fiber, kIntensity, {samples.data()});
    if (read != 1) return read;
    const std::vector<Run> runs = PatternOf(device, samples);
    // Until a fibre shows a run above 0 there is no reference to follow.
    if (mode != 1 && !reference) reference = ReferenceRun(runs);
    if (mode != 1 && !reference) continue;
    const SweepEntry entry =
        mode == 1 ? SweepFromStart(runs) : SweepFromReference(runs, *reference);
    delays[fiber - 1] = entry.delay;
    durations[fiber - 1] = entry.duration;
    levels[fiber - 1] = entry.level;
  }
  return 1;
}

// The blinking of a captured series, with the automatic thresholds whatever
// the stored ones are.
Blinking BlinkingOfSeries(s_CommPort* device, std::span<const int> samples) {
  return BlinkingOf(samples, device->sequence.periodMs,
                    AutomaticThresholds(samples, ScaleOf(device)));
}

int GetFrequency(s_CommPort* device, const int* intensities, float* frequency, float* dutyCycle,
                 int* cycleCount) {
  if (!RequireSetUp(device) || !RequireCaptured(device) ||
      !RequireBuffers(device, {intensities, frequency, dutyCycle, cycleCount})) {
    return -1;
  }
  const Blinking blinking = BlinkingOfSeries(device, SamplesOf(device, intensities));
  *frequency = blinking.frequency;
  *dutyCycle = blinking.dutyCycle;
  *cycleCount = blinking.cycleCount;
  if (blinking.found) return 1;
  SetError(device, "No blinking found in the sequence");
  return 0;
}

int SetThreshold(const char* devPath, int intensity, int PatternThresholds::*threshold) {
  return OnSequencePort(devPath, [&](s_CommPort* device) {
    if (intensity < -1 || intensity > 99999) {
      SetError(device, "Intensity value should be in the range [0, 99999] or -1 to disable (auto)");
      return -1;
    }
    device->pattern.*threshold = intensity;
    return 1;
  });
}

// ---- Test settings -------------------------------------------------------------

bool FrequencyRangeAccepted(s_CommPort* device, float minHz, float maxHz) {
  std::string refusal;
  if (!(minHz > 0) || !(maxHz > 0)) {
    refusal = "The frequencies must be above 0 Hz";
  } else if (minHz > maxHz) {
    refusal = "The minimum frequency is above the maximum frequency";
  } else if (!TrialFor(minHz, maxHz)) {
    refusal = StringPrintf("No sequence resolves %g to %g Hz: it takes 8 samples (of at least "
                           "1 ms) per cycle of the fastest light, so at most 125 Hz, and 4 cycles "
                           "of the slowest within 9999 samples",
                           static_cast<double>(minHz), static_cast<double>(maxHz));
  }
  if (!refusal.empty()) SetError(device, refusal);
  return refusal.empty();
}

bool SawNoLight(std::span<const int> samples) {
  return std::ranges::all_of(samples, [](int s) { return s <= 0; });
}

int FindTestSettings(s_CommPort* device, int fiber, float minHz, float maxHz, unsigned* captureTime,
                     unsigned* timeBetweenCaptures, int* sampleCount) {
  if (!RequireBuffers(device, {captureTime, timeBetweenCaptures, sampleCount}) ||
      !RequireFiber(device, fiber) || !FrequencyRangeAccepted(device, minHz, maxHz)) {
    return -1;
  }
  const TrialSettings trial = *TrialFor(minHz, maxHz);
  const SequenceSettings settings{0, static_cast<unsigned>(trial.captureTimeMs), 0,
                                  trial.sampleCount};
  // The PUT form: a trial leaves the instrument's stored set-up alone.
  int result = SetUpSequence(device, settings, 0);
  std::string answer;
  if (result == 1) result = CaptureSequence(device, fiber, &answer);
  std::vector<int> samples(static_cast<std::size_t>(trial.sampleCount));
  if (result == 1) result = DownloadSequence(device, fiber, kIntensity, {samples.data()});
  if (result != 1) return result;

  if (Contains(strtoupper(answer), "UNDERRANGE") || SawNoLight(samples)) {
    SetError(device,
             StringPrintf("The light on fiber %d is under range: nothing to measure", fiber));
    return 0;
  }
  const Blinking blinking = BlinkingOfSeries(device, samples);
  const std::string range =
      StringPrintf("%g to %g Hz", static_cast<double>(minHz), static_cast<double>(maxHz));
  if (!blinking.found) {
    SetError(device, StringPrintf("No blinking found on fiber %d in %d ms of samples, looking for "
                                  "%s",
                                  fiber, trial.sampleCount * trial.captureTimeMs, range.c_str()));
    return 0;
  }
  if (!WithinResolution(blinking.frequency, minHz, maxHz, trial.captureTimeMs)) {
    SetError(device, StringPrintf("Measured %.2f Hz on fiber %d, outside %s",
                                  static_cast<double>(blinking.frequency), fiber, range.c_str()));
    return 0;
  }
  *captureTime = settings.captureTime;
  *timeBetweenCaptures = settings.timeBetweenCaptures;
  *sampleCount = settings.sampleCount;
  return 1;
}

}  // namespace

extern "C" {

int ZeltoCom_Sequence_Setup(const char* devPath, unsigned StartDelay, unsigned CaptureTime,
                            unsigned TimeBetweenCaptures, int SampleCount, int setMode) {
  return OnSequencePort(devPath, [&](s_CommPort* device) {
    return SetUpSequence(device, {StartDelay, CaptureTime, TimeBetweenCaptures, SampleCount},
                         setMode);
  });
}

int ZeltoCom_Sequence_Capture(const char* devPath, int fiber) {
  return OnSequencePort(
      devPath, [&](s_CommPort* device) { return CaptureSequence(device, fiber, nullptr); });
}

int ZeltoCom_Sequence_ReadIntensity(const char* devPath, int fiber, int* intensity) {
  return ReadSequence(devPath, fiber, kIntensity, {intensity});
}

int ZeltoCom_Sequence_ReadxyI(const char* devPath, int fiber, float* x, float* y, int* intensity) {
  return ReadSequence(devPath, fiber, kXyI, {x, y, intensity});
}

int ZeltoCom_Sequence_ReadHSI(const char* devPath, int fiber, float* hue, int* saturation,
                              int* intensity) {
  return ReadSequence(devPath, fiber, kHSI, {hue, saturation, intensity});
}

int ZeltoCom_Sequence_ReadRGBI(const char* devPath, int fiber, unsigned char* red,
                               unsigned char* green, unsigned char* blue, int* intensity) {
  return ReadSequence(devPath, fiber, kRGBI, {red, green, blue, intensity});
}

int ZeltoCom_Sequence_ReadCCT(const char* devPath, int fiber, int* CCT, float* secondValue) {
  return ReadSequence(devPath, fiber, kCCT, {CCT, secondValue});
}

int ZeltoCom_Sequence_ReadWavelength(const char* devPath, int fiber, int* wavelength) {
  return ReadSequence(devPath, fiber, kWavelength, {wavelength});
}

int ZeltoCom_Sequence_SetPatternThresholdHigh(const char* devPath, int intensity) {
  return SetThreshold(devPath, intensity, &PatternThresholds::high);
}

int ZeltoCom_Sequence_SetPatternThresholdLow(const char* devPath, int intensity) {
  return SetThreshold(devPath, intensity, &PatternThresholds::low);
}

int ZeltoCom_Sequence_GetPattern(const char* devPath, const int* intensities, int* count,
                                 int* durations, int* levels) {
  return OnSequencePort(devPath, [&](s_CommPort* device) {
    return GetPattern(device, intensities, count, durations, levels);
  });
}

int ZeltoCom_Sequence_GetSweepingPattern(const char* devPath, int fiberCount, int mode, int* delays,
                                         int* durations, int* levels) {
  return OnSequencePort(devPath, [&](s_CommPort* device) {
    return GetSweepingPattern(device, fiberCount, mode, delays, durations, levels);
  });
}

int ZeltoCom_Sequence_GetFrequency(const char* devPath, const int* intensities, float* frequency,
                                   float* dutyCycle, int* cycleCount) {
  return OnSequencePort(devPath, [&](s_CommPort* device) {
    return GetFrequency(device, intensities, frequency, dutyCycle, cycleCount);
  });
}

int ZeltoCom_Sequence_FindTestSettings(const char* devPath, int fiber, float minFrequency,
                                       float maxFrequency, unsigned* captureTime,
                                       unsigned* timeBetweenCaptures, int* sampleCount) {
  return OnSequencePort(devPath, [&](s_CommPort* device) {
    return FindTestSettings(device, fiber, minFrequency, maxFrequency, captureTime,
                            timeBetweenCaptures, sampleCount);
  });
}

}  // extern "C"
