// zeltocom sequence: a burst of captures on one fiber, its pattern and blinking.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>

#include "commands.hpp"
#include "interrupt.hpp"
#include "library.hpp"
#include "output.hpp"
#include "svg.hpp"
#include "zeltocom.h"

namespace cli {
namespace {

struct SequenceSettings {
  unsigned startDelay = 0;
  unsigned captureTime = 0;
  unsigned pause = 0;
  int samples = 0;
};

struct SequenceOptions {
  std::string port;
  int fiber = 0;
  bool frequency = false;
  int samples = 200;
  unsigned captureTime = 10;
  unsigned pause = 0;
  unsigned delay = 0;
  std::string find;  // "MIN-MAX"
  int baud = 0;
  std::string svg;  // the picture's file
};

// The frequency span the instrument is to find the settings for.
std::pair<float, float> FindSpan(const std::string& span) {
  const std::size_t dash = span.find('-');
  if (dash == std::string::npos) UsageError("--find: expected MIN-MAX in Hz, got '" + span + "'");
  return {static_cast<float>(ParseNumber(span.substr(0, dash), "--find")),
          static_cast<float>(ParseNumber(span.substr(dash + 1), "--find"))};
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

struct Run {
  long start = 0;  // ms
  int duration = 0;
  int level = 0;
};

// What a picture of a sequence shows.
struct SequencePicture {
  std::string title;
  std::vector<int> intensities;
  double periodMs = 0;
  std::vector<Run> runs;
  std::string blinking;  // frequency and duty cycle, or that none was found
};

// The intensities over time as steps, the runs shaded (lit ones, those at
// the upper half of the levels, in yellow), the blinking written above.
void DrawSequence(const std::string& file, const SequencePicture& sequence) {
  svg::Document picture(800, 500);
  picture.Title(sequence.title, sequence.blinking);
  const auto [low, high] = std::ranges::minmax(sequence.intensities);
  const double endMs = sequence.periodMs * static_cast<double>(sequence.intensities.size());
  const double top = high > 0 ? high * 1.08 : 1;
  const svg::Axes axes(picture, {90, 70}, {680, 350}, {0, endMs},
                       {static_cast<double>(std::min(0, low)), top});
  axes.Draw("time (ms)", "intensity");
  axes.BeginClip();
  const auto [dimmest, brightest] = std::ranges::minmax_element(sequence.runs, {}, &Run::level);
  const double middle = sequence.runs.empty() ? 0 : (dimmest->level + brightest->level) / 2.0;
  for (const Run& run : sequence.runs) {
    const bool lit = run.level > middle;
    const svg::Point from = axes.At(static_cast<double>(run.start), axes.Y().high);
    const svg::Point to = axes.At(static_cast<double>(run.start + run.duration), axes.Y().low);
    picture.Rect(from, {to.x - from.x, to.y - from.y},
                 svg::Style("", lit ? "#ffc107" : "#90a4ae", 1, lit ? 0.3 : 0.15));
  }
  std::vector<svg::Point> steps;
  for (std::size_t i = 0; i < sequence.intensities.size(); ++i) {
    const double value = sequence.intensities[i];
    steps.push_back(axes.At(sequence.periodMs * static_cast<double>(i), value));
    steps.push_back(axes.At(sequence.periodMs * static_cast<double>(i + 1), value));
  }
  picture.Polyline(steps, svg::Style("#1f5fa8", "", 1.4));
  axes.EndClip();
  picture.Rect({560, 452}, {14, 10}, svg::Style("", "#ffc107", 1, 0.5));
  picture.Text({580, 461}, "lit run", svg::Font(11));
  picture.Rect({650, 452}, {14, 10}, svg::Style("", "#90a4ae", 1, 0.4));
  picture.Text({670, 461}, "dark run", svg::Font(11));
  picture.Save(file);
}

int RunSequence(const SequenceOptions& options) {
  const int fiber = options.fiber;
  const bool finding = !options.find.empty();
  const std::pair<float, float> find = finding ? FindSpan(options.find) : std::pair<float, float>{};
  SequenceSettings settings{options.delay, options.captureTime, options.pause, options.samples};
  const std::string path = OpenPort(options.port, options.baud);
  if (finding) {
    Progress progress("finding the settings");
    Require(ZeltoCom_Sequence_FindTestSettings(path.c_str(), fiber, find.first, find.second,
                                               &settings.captureTime, &settings.pause,
                                               &settings.samples),
            path);
  }
  Require(ZeltoCom_Sequence_Setup(path.c_str(), settings.startDelay, settings.captureTime,
                                  settings.pause, settings.samples, 0),
          path);
  const std::string time = UtcNow();
  {
    const auto start = std::chrono::steady_clock::now();
    const long lastsMs = static_cast<long>(settings.startDelay) +
                         static_cast<long>(settings.samples) *
                             static_cast<long>(settings.captureTime + settings.pause);
    const Aftermath aftermath([&] {
      const auto passed = std::chrono::duration_cast<std::chrono::milliseconds>(
          std::chrono::steady_clock::now() - start);
      const long left = std::max(0L, lastsMs - static_cast<long>(passed.count()));
      return "The analyser on " + path + " goes on sequencing for about " +
             std::to_string((left + 999) / 1000) + " s more and answers nothing until then.";
    });
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

  Json document = {{"port", path},
                   {"serial", SerialOf(path)},
                   {"time", time},
                   {"fiber", fiber},
                   {"start_delay_ms", settings.startDelay},
                   {"capture_time_ms", settings.captureTime},
                   {"pause_ms", settings.pause},
                   {"samples", settings.samples}};
  Json pattern = Json::array();
  Table table({{"start_ms", "START MS"}, {"duration_ms", "DURATION MS"}, {"level", "LEVEL"}});
  std::vector<Run> found;
  long start = 0;
  for (std::size_t r = 0; r < static_cast<std::size_t>(runs); ++r) {
    found.push_back({start, durations[r], levels[r]});
    const Json run = {{"start_ms", start}, {"duration_ms", durations[r]}, {"level", levels[r]}};
    pattern.push_back(run);
    table.Add(run);
    start += durations[r];
  }
  document["pattern"] = pattern;

  float hz = 0;
  float duty = 0;
  int cycles = 0;
  const bool blinking =
      (options.frequency || !options.svg.empty()) &&
      ZeltoCom_Sequence_GetFrequency(path.c_str(), intensities.data(), &hz, &duty, &cycles) == 1;
  char blinkingText[96] = "no blinking found";
  if (blinking) {
    std::snprintf(blinkingText, sizeof blinkingText,
                  "%.2f Hz, %.1f %% duty cycle, over %d whole cycles", hz, duty, cycles);
  }
  if (!options.svg.empty()) {
    DrawSequence(
        options.svg,
        {"Fiber " + std::to_string(fiber) + " of " + SerialOf(path) + ", " + time, intensities,
         static_cast<double>(settings.captureTime + settings.pause), found, blinkingText});
  }
  if (options.frequency) {
    document["frequency_hz"] = blinking ? Number(hz) : Json();
    document["duty_cycle_percent"] = blinking ? Number(duty) : Json();
    document["cycles"] = cycles;
  }
  if (JsonWanted()) {
    document["intensities"] = intensities;
    PrintJson(document);
    return kSuccess;
  }
  std::printf("%d captures of %u ms, %u ms apart, after %u ms, on fiber %d of %s\n\n",
              settings.samples, settings.captureTime, settings.pause, settings.startDelay, fiber,
              path.c_str());
  table.Print();
  if (options.frequency) std::printf("\n%s\n", blinkingText);
  if (StdoutIsTerminal()) Plot(intensities, settings.captureTime + settings.pause);
  return kSuccess;
}

}  // namespace

Subcommand AddSequence(CLI::App& root) {
  auto options = std::make_shared<SequenceOptions>();
  CLI::App* app =
      root.add_subcommand("sequence", "a sequence on one fiber: pattern, frequency, duty cycle");
  app->footer("Runs a sequence (a burst of equally spaced captures) on one fiber of the\n"
              "analyser on PORT, reads its intensities and prints their pattern: the lit\n"
              "and dark runs with their start, duration and level. --frequency adds the\n"
              "blinking frequency and duty cycle; --find lets the instrument choose the\n"
              "settings for a light blinking between MIN and MAX Hz (at most 125). On a\n"
              "terminal, a plot of the intensities over time follows; --svg draws it into a\n"
              "file, with the runs and the blinking. Ctrl-C closes the port\n"
              "and tells how long the analyser goes on sequencing.");
  AddOperand(*app, "PORT", options->port, "the analyser's port")->required();
  app->add_option("-f,--fiber", options->fiber, "the fiber (needed)")
      ->required()
      ->check(CLI::Range(1, 99))
      ->type_name("N");
  app->add_flag("--frequency", options->frequency,
                "also measure the blinking frequency and duty cycle");
  CLI::Option* samples =
      app->add_option("-n,--samples", options->samples, "captures, 1 to 9999 (default 200)")
          ->check(CLI::Range(1, 9999))
          ->type_name("N");
  CLI::Option* captureTime = app->add_option("--capture-time", options->captureTime,
                                             "each capture's time, 0 to 999 (default 10)")
                                 ->check(CLI::Range(0, 999))
                                 ->type_name("MS");
  CLI::Option* pause =
      app->add_option("--pause", options->pause, "time between captures, 0 to 999 (default 0)")
          ->check(CLI::Range(0, 999))
          ->type_name("MS");
  app->add_option("--delay", options->delay, "delay before the first capture, 0 to 999 (default 0)")
      ->check(CLI::Range(0, 999))
      ->type_name("MS");
  app->add_option("--find", options->find,
                  "choose the settings for a light blinking at MIN to MAX Hz")
      ->type_name("MIN-MAX")
      ->excludes(samples)
      ->excludes(captureTime)
      ->excludes(pause);
  app->add_option("--svg", options->svg,
                  "also draw the intensities, the runs and the blinking as SVG into FILE")
      ->type_name("FILE");
  AddBaudOption(*app, options->baud);
  return {app, [options] { return RunSequence(*options); }};
}

}  // namespace cli
