// zeltocom sequence: a burst of captures on one fiber, its pattern and blinking.
#include <algorithm>
#include <cstdio>

#include "commands.hpp"
#include "library.hpp"
#include "output.hpp"
#include "zeltocom.h"

namespace cli {
namespace {

struct SequenceSettings {
  unsigned startDelay = 0;
  unsigned captureTime = 0;
  unsigned pause = 0;
  int samples = 0;
};

// The settings the options give; with --find only the start delay, and the
// frequency span the instrument is to find the rest for.
SequenceSettings GivenSettings(const Args& args, std::pair<float, float>& find) {
  SequenceSettings settings;
  settings.startDelay = static_cast<unsigned>(args.Whole("--delay", 0, 0, 999));
  if (!args.Has("--find")) {
    settings.captureTime = static_cast<unsigned>(args.Whole("--capture-time", 10, 0, 999));
    settings.pause = static_cast<unsigned>(args.Whole("--pause", 0, 0, 999));
    settings.samples = static_cast<int>(args.Whole("--samples", 200, 1, 9999));
    return settings;
  }
  for (const char* chosen : {"--samples", "--capture-time", "--pause"}) {
    if (args.Has(chosen)) UsageError(std::string(chosen) + " and --find exclude each other");
  }
  const std::string span = args.Value("--find");
  const std::size_t dash = span.find('-');
  if (dash == std::string::npos) UsageError("--find: expected MIN-MAX in Hz, got '" + span + "'");
  find = {static_cast<float>(ParseNumber(span.substr(0, dash), "--find")),
          static_cast<float>(ParseNumber(span.substr(dash + 1), "--find"))};
  return settings;
}

// The intensities over time, as columns of '#', when a person looks at them.
void Plot(const std::vector<int>& samples, double periodMs) {
  constexpr int kHeight = 8;
  const int width = static_cast<int>(std::min<std::size_t>(samples.size(), 64));
  const auto [low, high] = std::minmax_element(samples.begin(), samples.end());
  std::vector<int> columns(static_cast<std::size_t>(width));
  for (int c = 0; c < width; ++c) {
    const auto from = samples.begin() + static_cast<long>(samples.size()) * c / width;
    const auto to = samples.begin() + static_cast<long>(samples.size()) * (c + 1) / width;
    columns[static_cast<std::size_t>(c)] = *std::max_element(from, to);
  }
  const double span = std::max(1, *high - *low);
  std::printf("\n");
  for (int row = kHeight; row >= 1; --row) {
    const double level = *low + span * (row - 0.5) / kHeight;
    std::string line;
    for (const int value : columns) line += value >= level ? '#' : ' ';
    const int label = row == kHeight ? *high : row == 1 ? *low : -1;
    if (label >= 0) {
      std::printf("%8d |%s\n", label, line.c_str());
    } else {
      std::printf("%8s |%s\n", "", line.c_str());
    }
  }
  std::printf("%8s +%s\n", "", std::string(static_cast<std::size_t>(width), '-').c_str());
  const std::string end = std::to_string(static_cast<long>(periodMs * samples.size())) + " ms";
  std::printf("%8s  0 ms%*s\n", "", std::max(1, width - 4), end.c_str());
}

int RunSequence(const Args& args) {
  const std::string& path = args.operands().front();
  if (!args.Has("--fiber")) UsageError("--fiber N is needed");
  const int fiber = static_cast<int>(args.Whole("--fiber", 1, 1, 99));
  std::pair<float, float> find{0, 0};
  SequenceSettings settings = GivenSettings(args, find);
  OpenPort(path, args.Baud());
  if (args.Has("--find")) {
    Progress progress("finding the settings");
    Require(ZeltoCom_Sequence_FindTestSettings(path.c_str(), fiber, find.first, find.second,
                                               &settings.captureTime, &settings.pause,
                                               &settings.samples),
            path);
  }
  Require(ZeltoCom_Sequence_Setup(path.c_str(), settings.startDelay, settings.captureTime,
                                  settings.pause, settings.samples, 0),
          path);
  {
    Progress progress("sequence of " + std::to_string(settings.samples) + " captures");
    Require(ZeltoCom_Sequence_Capture(path.c_str(), fiber), path);
  }
  const std::size_t count = static_cast<std::size_t>(settings.samples);
  std::vector<int> intensities(count, 0);
  Require(ZeltoCom_Sequence_ReadIntensity(path.c_str(), fiber, intensities.data()), path);
  int runs = 0;
  std::vector<int> durations(count, 0);
  std::vector<int> levels(count, 0);
  Require(ZeltoCom_Sequence_GetPattern(path.c_str(), intensities.data(), &runs, durations.data(),
                                       levels.data()),
          path);

  Json document = Json::MakeObject().Set("port", path).Set("serial", SerialOf(path));
  document.Set("fiber", fiber)
      .Set("start_delay_ms", settings.startDelay)
      .Set("capture_time_ms", settings.captureTime)
      .Set("pause_ms", settings.pause)
      .Set("samples", settings.samples);
  Json pattern = Json::MakeArray();
  Table table({{"start_ms", "START MS"}, {"duration_ms", "DURATION MS"}, {"level", "LEVEL"}});
  long start = 0;
  for (std::size_t r = 0; r < static_cast<std::size_t>(runs); ++r) {
    Json run = Json::MakeObject();
    run.Set("start_ms", start).Set("duration_ms", durations[r]).Set("level", levels[r]);
    pattern.Push(run);
    table.Add(run);
    start += durations[r];
  }
  document.Set("pattern", pattern);

  float hz = 0;
  float duty = 0;
  int cycles = 0;
  const bool blinking =
      args.Has("--frequency") &&
      ZeltoCom_Sequence_GetFrequency(path.c_str(), intensities.data(), &hz, &duty, &cycles) == 1;
  if (args.Has("--frequency")) {
    document.Set("frequency_hz", blinking ? Json(hz) : Json())
        .Set("duty_cycle_percent", blinking ? Json(duty) : Json())
        .Set("cycles", cycles);
  }
  if (args.json()) {
    Json samples = Json::MakeArray();
    for (const int value : intensities) samples.Push(value);
    PrintJson(document.Set("intensities", samples));
    return kSuccess;
  }
  std::printf("%d captures of %u ms, %u ms apart, after %u ms, on fiber %d of %s\n\n",
              settings.samples, settings.captureTime, settings.pause, settings.startDelay, fiber,
              path.c_str());
  table.Print();
  if (blinking) {
    std::printf("\n%.2f Hz, %.1f %% duty cycle, over %d whole cycles\n", hz, duty, cycles);
  } else if (args.Has("--frequency")) {
    std::printf("\nno blinking found\n");
  }
  if (StdoutIsTerminal()) Plot(intensities, settings.captureTime + settings.pause);
  return kSuccess;
}

}  // namespace

Command SequenceCommand() {
  return {"sequence",
          "PORT",
          1,
          1,
          "a sequence on one fiber: pattern, frequency, duty cycle",
          "Runs a sequence (a burst of equally spaced captures) on one fiber of the\n"
          "analyser on PORT, reads its intensities and prints their pattern: the lit\n"
          "and dark runs with their start, duration and level. --frequency adds the\n"
          "blinking frequency and duty cycle; --find lets the instrument choose the\n"
          "settings for a light blinking between MIN and MAX Hz (at most 125). On a\n"
          "terminal, a plot of the intensities over time follows.",
          {{"--fiber", "N", "the fiber (needed)"},
           {"--frequency", "", "also measure the blinking frequency and duty cycle"},
           {"--samples", "N", "captures, 1 to 9999 (default 200)"},
           {"--capture-time", "MS", "each capture's time, 0 to 999 (default 10)"},
           {"--pause", "MS", "time between captures, 0 to 999 (default 0)"},
           {"--delay", "MS", "delay before the first capture, 0 to 999 (default 0)"},
           {"--find", "MIN-MAX", "choose the settings for a light blinking at MIN to MAX Hz"},
           BaudOption()},
          RunSequence};
}

}  // namespace cli
