#include "sequence.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <string>

#include "instrument_state.hpp"
#include "photometry.hpp"

namespace zeltosim {

namespace {

void CheckIntensities(double on, double off) {
  if (!(on >= 0.0) || !(off >= 0.0) || !std::isfinite(on) || !std::isfinite(off))
    throw std::invalid_argument("light intensities must be finite numbers >= 0");
}

}  // namespace

Light Light::Steady(double intensity) {
  CheckIntensities(intensity, 0.0);
  return Light{intensity, 0.0, 0.0, 0.0, 0.0};
}

Light Light::Blinking(double hz, double dutyPercent, double on, double off) {
  CheckIntensities(on, off);
  if (!(hz > 0.0) || !std::isfinite(hz))
    throw std::invalid_argument("blinking needs a frequency > 0");
  if (!(dutyPercent >= 0.0 && dutyPercent <= 100.0))
    throw std::invalid_argument("a duty cycle is 0 to 100 %");
  const double period = 1000.0 / hz;
  return Light{on, off, period, period * dutyPercent / 100.0, 0.0};
}

Light Light::Running(int place, int places, double dwellMs, double on, double off) {
  CheckIntensities(on, off);
  if (places < 1 || place < 0 || place >= places)
    throw std::invalid_argument("a running light's place is 0 to places - 1");
  if (!(dwellMs > 0.0) || !std::isfinite(dwellMs))
    throw std::invalid_argument("a running light needs a dwell time > 0");
  return Light{on, off, places * dwellMs, dwellMs, place * dwellMs};
}

void Instrument::setLight(int index, const Light& light) {
  std::lock_guard lock(state_->mutex);
  const auto count = static_cast<int>(state_->config.fibers.size());
  if (index < 0 || index >= count)
    throw std::out_of_range("setLight: index " + std::to_string(index) + " outside 0.." +
                            std::to_string(count - 1));
  auto& lights = state_->sequence.lights;
  lights.resize(static_cast<size_t>(count));
  lights[static_cast<size_t>(index)] = light;
}

void Instrument::setUnpaddedReadouts(bool on) {
  std::lock_guard lock(state_->mutex);
  state_->config.unpaddedReadouts = on;
}

void Instrument::setRunningLight(double dwellMs, double on, double off) {
  const auto count = static_cast<int>(state_->config.fibers.size());  // fixed at construction
  for (int i = 0; i < count; ++i) setLight(i, Light::Running(i, count, dwellMs, on, off));
}

namespace detail {
namespace {

using State = Instrument::State;

// How long the light has been lit from the start of the sequence until `t` ms.
double LitMsUntil(const Light& light, double t) {
  if (light.periodMs <= 0.0) return t;
  const double since = t - light.delayMs;
  if (since <= 0.0) return 0.0;
  const double cycles = std::floor(since / light.periodMs);
  return cycles * light.litMs + std::min(since - cycles * light.periodMs, light.litMs);
}

bool LitAt(const Light& light, double t) {
  if (light.periodMs <= 0.0) return true;
  const double since = t - light.delayMs;
  return since >= 0.0 && std::fmod(since, light.periodMs) < light.litMs;
}

// What a capture from `from` lasting `ms` reads: the light's mean over the
// window, or its value at that moment for a capture of no length.
double IntensityDuring(const Light& light, double from, double ms) {
  const double litShare = ms > 0.0 ? (LitMsUntil(light, from + ms) - LitMsUntil(light, from)) / ms
                                   : (LitAt(light, from) ? 1.0 : 0.0);
  return light.off + (light.on - light.off) * litShare;
}

std::vector<Fiber> SamplesOf(const State& st, size_t fibre) {
  const SequenceSetup& s = st.sequence.setup;
  const Fiber& steady = st.config.fibers[fibre];
  const std::optional<Light>& light =
      fibre < st.sequence.lights.size() ? st.sequence.lights[fibre] : std::nullopt;
  std::vector<Fiber> samples(static_cast<size_t>(s.samples), steady);
  for (size_t i = 0; i < samples.size(); ++i) {
    const double start = s.startDelayMs + static_cast<double>(i) * (s.captureMs + s.waitMs);
    if (steady.force == Range::UnderRange) samples[i].intensity = 0.0;
    else if (light) samples[i].intensity = IntensityDuring(*light, start, s.captureMs);
  }
  return samples;
}

bool SetUp(const SequenceSetup& s) {
  return s.startDelayMs >= 0 && s.captureMs >= 0 && s.waitMs >= 0 && s.samples >= 1;
}

// The analyser's verdict on the fibres it captured: a forced range, or OK.
std::string ConditionOf(const State& st) {
  for (size_t i = 0; i < st.sequence.samples.size(); ++i) {
    if (st.sequence.samples[i].empty()) continue;
    const Range r = st.config.fibers[i].force;
    if (r == Range::Normal) continue;
    char text[48];  // room for any size_t, which GCC checks at -O2
    std::snprintf(text, sizeof text, "%s ON FIBER %02zu",
                  r == Range::OverRange ? "OVERRANGE" : "UNDERRANGE", i + 1);
    return text;
  }
  return "OK";
}

// The memory keeps saturation as a whole percent.
std::string HsiLine(const Seen& s) {
  double hue = 0.0;
  double saturation = 0.0;
  int intensity = 0;
  std::sscanf(HsiText(s).c_str(), "%lf %lf %d", &hue, &saturation, &intensity);
  char text[64];
  std::snprintf(text, sizeof text, "%.2f %ld %d", hue, std::lround(saturation), intensity);
  return text;
}

// The CCT and the analyser's second value beside it, here the x chromaticity.
std::string CctLine(const Seen& s) {
  const std::string xy = XyText(s);
  return CctText(s) + " " + xy.substr(0, xy.find(' '));
}

std::string LineOf(Reading reading, const Seen& s) {
  switch (reading) {
    case Reading::Intensity: return IntensityText(s);
    case Reading::XyI: return XyText(s) + " " + IntensityText(s);
    case Reading::Hsi: return HsiLine(s);
    case Reading::Rgbi: return RgbiText(s);
    case Reading::Cct: return CctLine(s);
    case Reading::Wavelength: return WavelengthText(s);
  }
  return {};
}

// The characters per line of each reading, CR LF not counted.
size_t WidthOf(Reading reading) {
  switch (reading) {
    case Reading::Intensity: return 11;
    case Reading::XyI: return 19;
    case Reading::Hsi: return 22;
    case Reading::Rgbi: return 23;
    case Reading::Cct: return 18;
    case Reading::Wavelength: return 11;
  }
  return 0;
}

// Right-aligned with blanks; a longer line goes out whole.
std::string PaddedTo(size_t width, std::string line) {
  if (line.size() < width) line.insert(0, width - line.size(), ' ');
  return line;
}

}  // namespace

Reply SequenceSetting(State& st, int SequenceSetup::*field, std::string_view arg) {
  const bool count = field == &SequenceSetup::samples;
  const auto value = arg.size() < 3 ? std::nullopt
                     : count        ? Number(arg, 4, 1, 9999)
                                    : Number(arg, 3, 0, 999);
  if (!value) return SyntaxError(st);
  st.sequence.setup.*field = static_cast<int>(*value);
  return SayOnce(st, {"OK"});
}

Reply SequenceMode(State& st, std::string_view arg) {
  const auto mode = Number(arg, 1, 0, 1);
  if (!mode) return SyntaxError(st);
  st.sequence.setup.oneChannel = *mode == 1;
  return SayOnce(st, {"OK"});
}

Reply SequenceChannel(State& st, std::string_view arg) {
  const auto channel = arg.size() == 2
                           ? Number(arg, 2, 1, static_cast<long>(st.config.fibers.size()))
                           : std::nullopt;
  if (!channel) return SyntaxError(st);
  st.sequence.setup.channel = static_cast<int>(*channel);
  return SayOnce(st, {"OK"});
}

// The burst runs to its end before the answer, so the line stays silent as
// long as a real analyser's would.
Reply SequenceCapture(State& st) {
  SequenceMemory& memory = st.sequence;
  const SequenceSetup& s = memory.setup;
  const size_t fibres = st.config.fibers.size();
  if (!SetUp(s) || (s.oneChannel && static_cast<size_t>(s.channel) > fibres))
    return SyntaxError(st);
  memory.samples.assign(fibres, {});
  for (size_t i = 0; i < fibres; ++i) {
    if (!s.oneChannel || i + 1 == static_cast<size_t>(s.channel))
      memory.samples[i] = SamplesOf(st, i);
  }
  memory.current = true;
  const double ms = s.startDelayMs + static_cast<double>(s.samples) * (s.captureMs + s.waitMs);
  Reply reply;
  reply.messages.push_back(Say(st, {ConditionOf(st)}, CaptureMs(st, ms)));
  return reply;
}

std::optional<Reply> SequenceReadings(State& st, Reading reading, std::string_view arg) {
  const SequenceMemory& memory = st.sequence;
  if (!memory.current || arg == "ALL") return std::nullopt;
  const auto fibre =
      arg.size() == 2 ? Number(arg, 2, 1, static_cast<long>(memory.samples.size())) : std::nullopt;
  if (!fibre || memory.samples[static_cast<size_t>(*fibre - 1)].empty()) return SyntaxError(st);
  const bool logarithmic = st.current().logarithmic;
  const size_t index = static_cast<size_t>(*fibre - 1);
  const size_t width = st.config.unpaddedReadouts ? 0 : WidthOf(reading);
  std::vector<std::string> lines;
  for (const Fiber& sample : memory.samples[index]) {
    const Seen seen{sample, st.calibration[index], logarithmic};
    lines.push_back(PaddedTo(width, LineOf(reading, seen)));
  }
  return SayOnce(st, std::move(lines));
}

}  // namespace detail
}  // namespace zeltosim
