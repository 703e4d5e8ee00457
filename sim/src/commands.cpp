// The instruments' command set. Adding a command means adding one table entry
// and one handler; lookup tries longer names first so that, for instance,
// "GETINTENSITYMODE" wins over "GETINTENSITY<nn>" and "CAPTUREDARK" over "C".
#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <optional>
#include <string_view>

#include "instrument_state.hpp"
#include "photometry.hpp"

namespace zeltosim::detail {
namespace {

using State = Instrument::State;

enum class Match { Exact, Prefix };  // Prefix: the name followed by an argument
enum class Family { Any, Analyser, Spectrometer, PwmSpectrometer };

struct Call {
  State& st;
  std::string_view arg;     // upper case, after the command name
  const std::string& line;  // as received
};

using Handler = Reply (*)(const Call&);

struct Command {
  std::string_view name;
  Match match;
  Family family;
  Handler handler;
  std::string_view usage;  // as HELP lists it
};

bool Fits(Family family, const State& st) {
  switch (family) {
    case Family::Any: return true;
    case Family::Analyser: return !st.spectrometer;
    case Family::Spectrometer: return st.spectrometer;
    case Family::PwmSpectrometer: return st.microseconds;
  }
  return false;
}

// ---- argument parsing -------------------------------------------------------

std::string TwoDigits(int value) {
  char text[16];
  std::snprintf(text, sizeof text, "%02d", value);
  return text;
}

void CountCapture(State& st, const std::string& line, int ms) {
  ++st.captures;
  st.lastCaptureCommand = line;
  st.captureEnds = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
}

Reply Ok(const State& st) { return SayOnce(st, {"OK"}); }

// ---- identity, framing, line --------------------------------------------------

Reply GetSerial(const Call& c) { return SayOnce(c.st, {c.st.config.serial}); }
Reply GetHardware(const Call& c) { return SayOnce(c.st, {c.st.config.hardware}); }
Reply GetVersion(const Call& c) { return SayOnce(c.st, {c.st.config.firmware}); }
Reply GetId(const Call& c) { return SayOnce(c.st, {c.st.config.id}); }

// The mode switches first, so the confirmation is already in the new framing.
Reply EnableEot(const Call& c) {
  c.st.config.eot = true;
  return Ok(c.st);
}

Reply DisableEot(const Call& c) {
  c.st.config.eot = false;
  return Ok(c.st);
}

Reply SetBaud(const Call& c) {
  const auto rate = Number(c.arg, 8, 1, 20'000'000);
  if (!rate) return SyntaxError(c.st);
  Reply reply = Ok(c.st);  // still at the old rate
  reply.newBaud = static_cast<int>(*rate);
  return reply;
}

// ---- settings of the current adjustment set ------------------------------------

Reply GetFactor(const Call& c) { return SayOnce(c.st, {std::to_string(c.st.current().factor)}); }
Reply GetAverage(const Call& c) { return SayOnce(c.st, {std::to_string(c.st.current().averages)}); }

Reply SetFactor(const Call& c) {
  const auto n = Number(c.arg, 4, 1, 9999);
  if (!n) return SyntaxError(c.st);
  c.st.current().factor = static_cast<int>(*n);
  return Ok(c.st);
}

Reply SetAverage(const Call& c) {
  const auto n = Number(c.arg, 4, 1, 9999);
  if (!n) return SyntaxError(c.st);
  c.st.current().averages = static_cast<int>(*n);
  return Ok(c.st);
}

Reply GetFibers(const Call& c) {
  const size_t n = c.st.spectrometer ? 1 : c.st.config.fibers.size();
  return SayOnce(c.st, {std::to_string(n)});
}

Reply GetPwm(const Call& c) { return SayOnce(c.st, {std::to_string(c.st.current().pwm)}); }

Reply SetPwm(const Call& c) {
  const auto on = Number(c.arg, 1, 0, 1);
  if (!on) return SyntaxError(c.st);
  c.st.current().pwm = static_cast<int>(*on);
  return Ok(c.st);
}

// "-W2" models count in microseconds, all others in milliseconds.
long DefaultCustomTime(const State& st) { return st.microseconds ? 100000 : 100; }

Reply GetCustomTime(const Call& c) {
  const long t = c.st.current().customTime;
  const long shown = t < 0 ? DefaultCustomTime(c.st) : t;
  return SayOnce(c.st, {std::to_string(shown) + (c.st.microseconds ? " us" : " ms")});
}

Reply SetCustomTime(const Call& c) {
  const auto t = Number(c.arg, 9, 0, 999'999'999);
  if (!t) return SyntaxError(c.st);
  c.st.current().customTime = *t;
  return Ok(c.st);
}

Reply GetIntensityMode(const Call& c) {
  if (!c.st.config.hasIntensityModeCommand) return SyntaxError(c.st);
  return SayOnce(c.st, {c.st.current().logarithmic ? "LOGARITHMIC" : "LINEAR"});
}

Reply SetLogarithmic(const Call& c) {
  c.st.current().logarithmic = true;
  return Ok(c.st);
}

Reply SetLinear(const Call& c) {
  c.st.current().logarithmic = false;
  return Ok(c.st);
}

Reply GetAdjustmentSet(const Call& c) { return SayOnce(c.st, {TwoDigits(c.st.currentSet)}); }

Reply SetAdjustmentSet(const Call& c) {
  const auto n = Number(c.arg, 3, 0, kAdjustmentSets - 1);
  if (!n) return SyntaxError(c.st);
  c.st.currentSet = static_cast<int>(*n);
  return Ok(c.st);
}

Reply ResetAdjustment(const Call& c) {
  c.st.current() = Settings{};
  return Ok(c.st);
}

// ---- multi-line reports ---------------------------------------------------------

Reply GetStatus(const Call& c) {
  const State& st = c.st;
  const Settings& s = st.sets[static_cast<size_t>(st.currentSet)];
  return SayOnce(st,
                 {
                     "Model: " + st.config.hardware,
                     "Serial: " + st.config.serial,
                     "Firmware: " + st.config.firmware,
                     "Adjustment set: " + TwoDigits(st.currentSet),
                     "Factor: " + std::to_string(s.factor),
                     "Averages: " + std::to_string(s.averages),
                     std::string("Intensity mode: ") + (s.logarithmic ? "Logarithmic" : "Linear"),
                 });
}

Reply GetInfo(const Call& c) {
  const State& st = c.st;
  const size_t fibres = st.spectrometer ? 1 : st.config.fibers.size();
  return SayOnce(st, {
                         st.spectrometer ? "Zelto spectrometer" : "Zelto LED analyser",
                         "Hardware: " + st.config.hardware,
                         "Firmware: " + st.config.firmware,
                         "Serial: " + st.config.serial,
                         "ID: " + st.config.id,
                         "Fibers: " + std::to_string(fibres),
                     });
}

Reply Help(const Call& c);  // lists the table below

// ---- LED analyser captures and readings ---------------------------------------------

struct LedCapture {
  int range = 0;  // 0 = automatic
  bool pwm = false;
  int frames = -1;  // -1 = the instrument's default
};

// "", "<r>", "<r>PWM", "<r>PWM<ff>", "PWM", "PWM<ff>"
std::optional<LedCapture> ParseLedCapture(std::string_view arg) {
  LedCapture cap;
  if (!arg.empty() && std::isdigit(static_cast<unsigned char>(arg.front()))) {
    cap.range = arg.front() - '0';
    if (cap.range < 1 || cap.range > 6) return std::nullopt;
    arg.remove_prefix(1);
  }
  if (arg.starts_with("PWM")) {
    cap.pwm = true;
    arg.remove_prefix(3);
    if (!arg.empty()) {
      const auto frames = Number(arg, 2, 0, 99);
      if (!frames || arg.size() != 2) return std::nullopt;
      cap.frames = static_cast<int>(*frames);
      arg = {};
    }
  }
  if (!arg.empty()) return std::nullopt;
  return cap;
}

double LedCaptureMs(const LedCapture& cap, const Settings& s) {
  static constexpr std::array<double, 7> kRangeMs = {300, 900, 400, 160, 70, 30, 12};
  double ms = kRangeMs[static_cast<size_t>(cap.range)] * s.factor * s.averages;
  if (cap.pwm) ms *= std::max(1.0, (cap.frames < 0 ? 7 : cap.frames) / 2.0);
  return ms;
}

std::string LedCaptureResult(const std::vector<Fiber>& fibres) {
  for (size_t i = 0; i < fibres.size(); ++i) {
    const Range r = fibres[i].force;
    if (r == Range::Normal) continue;
    const char* what = r == Range::OverRange ? "OVERRANGE" : "UNDERRANGE";
    return std::string(what) + " ON FIBER " + TwoDigits(static_cast<int>(i + 1));
  }
  return "OK";
}

// Takes the fibres' readings; returns how long the capture takes.
int BeginLedCapture(State& st, const LedCapture& cap, const std::string& line) {
  st.captured = st.config.fibers;
  st.sequence.current = false;
  const int ms = CaptureMs(st, LedCaptureMs(cap, st.current()));
  CountCapture(st, line, ms);
  return ms;
}

Reply LedCaptureCommand(const Call& c) {
  const auto cap = ParseLedCapture(c.arg);
  if (!cap) return SyntaxError(c.st);
  const int ms = BeginLedCapture(c.st, *cap, c.line);
  Reply reply;
  reply.messages.push_back(Say(c.st, {LedCaptureResult(c.st.captured)}, ms));
  return reply;
}

using FiberText = std::string (*)(const Seen&);

// "<nn>" (two digits, 1-based) or "ALL" (one line per fibre, one message).
Reply Readings(const Call& c, FiberText text) {
  const State& st = c.st;
  const bool logarithmic = st.sets[static_cast<size_t>(st.currentSet)].logarithmic;
  const auto seen = [&](size_t i) {
    return text(Seen{st.captured[i], st.calibration[i], logarithmic});
  };
  std::vector<std::string> lines;
  if (c.arg == "ALL") {
    for (size_t i = 0; i < st.captured.size(); ++i) lines.push_back(seen(i));
    return SayOnce(st, std::move(lines));
  }
  const auto n =
      c.arg.size() == 2 ? Number(c.arg, 2, 1, static_cast<long>(st.captured.size())) : std::nullopt;
  if (!n) return SyntaxError(st);
  return SayOnce(st, {seen(static_cast<size_t>(*n - 1))});
}

// After a sequence capture the readings answer from the sequence's memory.
Reply SequenceOr(const Call& c, Reading reading, FiberText text) {
  if (std::optional<Reply> reply = SequenceReadings(c.st, reading, c.arg)) return *reply;
  return Readings(c, text);
}

Reply GetRgbi(const Call& c) { return SequenceOr(c, Reading::Rgbi, RgbiText); }
Reply GetIntensity(const Call& c) { return SequenceOr(c, Reading::Intensity, IntensityText); }
Reply GetHsi(const Call& c) { return SequenceOr(c, Reading::Hsi, HsiText); }
Reply GetXy(const Call& c) { return Readings(c, XyText); }
Reply GetXyi(const Call& c) {
  return SequenceOr(c, Reading::XyI,
                    [](const Seen& s) { return XyText(s) + " " + IntensityText(s); });
}
Reply GetCct(const Call& c) { return SequenceOr(c, Reading::Cct, CctText); }
Reply GetWavelength(const Call& c) { return SequenceOr(c, Reading::Wavelength, WavelengthText); }
Reply GetRgbExt(const Call& c) { return Readings(c, RgbExtText); }
Reply GetAbsInt(const Call& c) { return Readings(c, AbsIntText); }

// ---- spectrometer captures --------------------------------------------------------------

// An exposure in the instrument's own unit; an empty argument lets the
// instrument choose.
std::optional<long> ParseExposure(const State& st, std::string_view arg) {
  if (arg.empty()) return st.microseconds ? 50000 : 50;
  const long max = st.microseconds ? 4'000'000 : 15'000;
  return Number(arg, 8, 0, max);
}

double ExposureMs(const State& st, long exposure) {
  const Settings& s = st.sets[static_cast<size_t>(st.currentSet)];
  const double ms = st.microseconds ? exposure / 1000.0 : static_cast<double>(exposure);
  return ms * s.averages;
}

Reply SpectrumCapture(const Call& c) {
  const auto exposure = ParseExposure(c.st, c.arg);
  if (!exposure) return SyntaxError(c.st);
  State& st = c.st;
  const bool pwm = st.microseconds && st.current().pwm != 0;
  const int ms = CaptureMs(st, ExposureMs(st, *exposure) * (pwm ? 2 : 1));
  CountCapture(st, c.line, ms);
  const std::string answer = st.config.captureCondition.empty() ? "OK" : st.config.captureCondition;
  Reply reply;
  reply.messages.push_back(Say(st, {answer}, ms));
  return reply;
}

// "CAPTUREDARK%3d" pads short exposures with blanks.
Reply CaptureDark(const Call& c) {
  std::string_view arg = c.arg;
  if (!arg.empty()) {
    arg.remove_prefix(std::min(arg.find_first_not_of(' '), arg.size()));
    if (arg.empty()) return SyntaxError(c.st);
  }
  const auto exposure = ParseExposure(c.st, arg);
  if (!exposure) return SyntaxError(c.st);
  State& st = c.st;
  const int ms = CaptureMs(st, ExposureMs(st, *exposure));
  CountCapture(st, c.line, ms);
  Reply reply;
  if (st.config.darkAnnounces) reply.messages.push_back(Say(st, {"Acquiring..."}));
  reply.messages.push_back(Say(st, {"OK"}, ms));
  return reply;
}

// Acquisitions run to their end before the next line is read, so there is
// never one left to stop.
Reply StopAcquisition(const Call& c) { return Ok(c.st); }

// ---- external trigger ----------------------------------------------------------------

constexpr std::array<std::string_view, 7> kTriggerOutputs = {"NONE", "HSI",    "XYI", "RGBI",
                                                             "CCTI", "ABSINT", "WSI"};

// "<pwm 0|1><range 1..6>", or "00" for off.
Reply SetExternalCapture(const Call& c) {
  TriggerSetup& t = c.st.trigger;
  if (c.arg == "00") {
    t.enabled = false;
    return Ok(c.st);
  }
  const auto pwm = c.arg.size() == 2 ? Number(c.arg.substr(0, 1), 1, 0, 1) : std::nullopt;
  const auto range = c.arg.size() == 2 ? Number(c.arg.substr(1), 1, 1, 6) : std::nullopt;
  if (!pwm || !range) return SyntaxError(c.st);
  t.enabled = true;
  t.pwm = *pwm == 1;
  t.range = static_cast<int>(*range);
  return Ok(c.st);
}

Reply GetExternalCapture(const Call& c) {
  const TriggerSetup& t = c.st.trigger;
  return SayOnce(c.st,
                 {t.enabled ? std::to_string(t.pwm ? 1 : 0) + std::to_string(t.range) : "00"});
}

Reply SetExternalOutput(const Call& c) {
  if (std::ranges::find(kTriggerOutputs, c.arg) == kTriggerOutputs.end()) return SyntaxError(c.st);
  c.st.trigger.output = std::string(c.arg);
  return Ok(c.st);
}

Reply GetExternalOutput(const Call& c) { return SayOnce(c.st, {c.st.trigger.output}); }

// Analysers take three digits; spectrometers four, or five up to 65000.
std::optional<long> TriggerDelay(const State& st, std::string_view arg) {
  if (!st.spectrometer) return arg.size() == 3 ? Number(arg, 3, 0, 999) : std::nullopt;
  return arg.size() >= 4 ? Number(arg, 5, 0, 65000) : std::nullopt;
}

Reply SetTriggerDelay(const Call& c, int TriggerSetup::*delay) {
  const auto ms = TriggerDelay(c.st, c.arg);
  if (!ms) return SyntaxError(c.st);
  c.st.trigger.*delay = static_cast<int>(*ms);
  return Ok(c.st);
}

Reply SetTriggerPreDelay(const Call& c) { return SetTriggerDelay(c, &TriggerSetup::preDelayMs); }
Reply SetTriggerPostDelay(const Call& c) { return SetTriggerDelay(c, &TriggerSetup::postDelayMs); }

// One fibre's line of a trigger report.
std::string TriggerReading(const std::string& output, const Seen& s) {
  if (output == "HSI") return HsiText(s);
  if (output == "RGBI") return RgbiText(s);
  if (output == "CCTI") return CctText(s) + " " + IntensityText(s);
  if (output == "ABSINT") return AbsIntText(s);
  if (output == "WSI") {
    const std::string hsi = HsiText(s);  // the hue gives way to the wavelength
    return WavelengthText(s) + hsi.substr(hsi.find(' '));
  }
  return XyText(s) + " " + IntensityText(s);
}

// ---- broadcast captures ----------------------------------------------------------------

constexpr int kLateEotMs = 5;

// The digits of the firmware text after its family letter: "F2.11" is 211.
int FirmwareNumber(const std::string& firmware) {
  int number = 0;
  for (size_t i = 1; i < firmware.size() && number < 100000; ++i) {
    const char ch = firmware[i];
    if (std::isdigit(static_cast<unsigned char>(ch))) number = number * 10 + (ch - '0');
    else if (ch != '.') break;
  }
  return number;
}

// Firmware before F2.12 and S2.01 ends its BUSCE answers with CR LF and sends
// the 0x04 on its own a moment later.
bool SendsLateEot(const State& st) {
  const std::string& firmware = st.config.firmware;
  if (!st.config.eot || firmware.empty()) return false;
  const int number = FirmwareNumber(firmware);
  return (firmware[0] == 'F' && number < 212) || (firmware[0] == 'S' && number < 201);
}

Reply WithLateEot(Reply reply) {
  reply.messages.back().eot = false;
  reply.messages.push_back(Message{kLateEotMs, {}, true});
  return reply;
}

// ---- sequences (handled in sequence.cpp) -------------------------------------------------

Reply SequenceStartDelay(const Call& c) {
  return SequenceSetting(c.st, &SequenceSetup::startDelayMs, c.arg);
}
Reply SequenceCaptureTime(const Call& c) {
  return SequenceSetting(c.st, &SequenceSetup::captureMs, c.arg);
}
Reply SequenceWait(const Call& c) { return SequenceSetting(c.st, &SequenceSetup::waitMs, c.arg); }
Reply SequenceNumber(const Call& c) {
  return SequenceSetting(c.st, &SequenceSetup::samples, c.arg);
}
Reply SequenceModeCommand(const Call& c) { return SequenceMode(c.st, c.arg); }
Reply SequenceChannelCommand(const Call& c) { return SequenceChannel(c.st, c.arg); }
Reply SequenceCaptureCommand(const Call& c) { return SequenceCapture(c.st); }

// ---- the table ---------------------------------------------------------------------------

constexpr auto E = Match::Exact;
constexpr auto P = Match::Prefix;
constexpr auto Any = Family::Any;
constexpr auto Led = Family::Analyser;
constexpr auto Spectro = Family::Spectrometer;
constexpr auto Pwm = Family::PwmSpectrometer;

const std::vector<Command>& Table() {
  static const std::vector<Command> table = {
      {"GETSERIAL", E, Any, GetSerial, "GETSERIAL"},
      {"GETHW", E, Any, GetHardware, "GETHW"},
      {"GETVERSION", E, Any, GetVersion, "GETVERSION"},
      {"ID", E, Any, GetId, "ID"},
      {"ENABLEEOT", E, Any, EnableEot, "ENABLEEOT"},
      {"DISABLEEOT", E, Any, DisableEot, "DISABLEEOT"},
      {"SETBAUD", P, Any, SetBaud, "SETBAUD<rate>"},
      {"GETFACTOR", E, Any, GetFactor, "GETFACTOR"},
      {"SETFACTOR", P, Any, SetFactor, "SETFACTOR<n>"},
      {"PUTFACTOR", P, Any, SetFactor, "PUTFACTOR<n>"},
      {"GETAVERAGE", E, Any, GetAverage, "GETAVERAGE"},
      {"SETAVERAGE", P, Any, SetAverage, "SETAVERAGE<n>"},
      {"PUTAVERAGE", P, Any, SetAverage, "PUTAVERAGE<n>"},
      {"GETNFIB", E, Any, GetFibers, "GETNFIB"},
      {"GETPWM", E, Pwm, GetPwm, "GETPWM"},
      {"SETPWM", P, Pwm, SetPwm, "SETPWM<0|1>"},
      {"PUTPWM", P, Pwm, SetPwm, "PUTPWM<0|1>"},
      {"GETCUSTOMTIME", E, Any, GetCustomTime, "GETCUSTOMTIME"},
      {"SETCUSTOMTIME", P, Any, SetCustomTime, "SETCUSTOMTIME<n>"},
      {"PUTCUSTOMTIME", P, Any, SetCustomTime, "PUTCUSTOMTIME<n>"},
      {"GETINTENSITYMODE", E, Any, GetIntensityMode, "GETINTENSITYMODE"},
      {"SETLOG", E, Any, SetLogarithmic, "SETLOG"},
      {"PUTLOG", E, Any, SetLogarithmic, "PUTLOG"},
      {"SETLIN", E, Any, SetLinear, "SETLIN"},
      {"PUTLIN", E, Any, SetLinear, "PUTLIN"},
      {"GETCALIBRATION", E, Led, GetAdjustmentSet, "GETCALIBRATION"},
      {"SETCALIBRATION", P, Led, SetAdjustmentSet, "SETCALIBRATION<n>"},
      {"PUTCALIBRATION", P, Led, SetAdjustmentSet, "PUTCALIBRATION<n>"},
      {"GETADJUSTMENT", E, Spectro, GetAdjustmentSet, "GETADJUSTMENT"},
      {"SETADJUSTMENT", P, Spectro, SetAdjustmentSet, "SETADJUSTMENT<n>"},
      {"PUTADJUSTMENT", P, Spectro, SetAdjustmentSet, "PUTADJUSTMENT<n>"},
      {"RESETADJUSTMENT", E, Any, ResetAdjustment, "RESETADJUSTMENT"},
      {"RESETUSERCAL", E, Any, ResetAdjustment, "RESETUSERCAL"},
      {"GETSTATUS", E, Any, GetStatus, "GETSTATUS"},
      {"GETINFO", E, Any, GetInfo, "GETINFO"},
      {"HELP", E, Any, Help, "HELP"},
      {"C", P, Led, LedCaptureCommand, "C[<range>][PWM[<frames>]]"},
      {"GETRGBI", P, Led, GetRgbi, "GETRGBI<nn>|ALL"},
      {"GETXY", P, Led, GetXy, "GETXY<nn>|ALL"},
      {"GETXYI", P, Led, GetXyi, "GETXYI<nn>|ALL"},
      {"GETINTENSITY", P, Led, GetIntensity, "GETINTENSITY<nn>|ALL"},
      {"GETHSI", P, Led, GetHsi, "GETHSI<nn>|ALL"},
      {"GETCCT", P, Led, GetCct, "GETCCT<nn>|ALL"},
      {"GETWAVELENGTH", P, Led, GetWavelength, "GETWAVELENGTH<nn>|ALL"},
      {"GETRGBEXT", P, Led, GetRgbExt, "GETRGBEXT<nn>|ALL"},
      {"GETABSINT", P, Led, GetAbsInt, "GETABSINT<nn>|ALL"},
      {"C", P, Spectro, SpectrumCapture, "C[<exposure>]"},
      {"CAPTUREDARK", P, Spectro, CaptureDark, "CAPTUREDARK[<exposure>]"},
      {"I", E, Spectro, StopAcquisition, "I"},
      {"SETEXTERNALCAPTURE", P, Any, SetExternalCapture, "SETEXTERNALCAPTURE<pwm><range>|00"},
      {"PUTEXTERNALCAPTURE", P, Any, SetExternalCapture, "PUTEXTERNALCAPTURE<pwm><range>|00"},
      {"GETEXTERNALCAPTURE", E, Any, GetExternalCapture, "GETEXTERNALCAPTURE"},
      {"SETEXTERNALOUTPUT", P, Any, SetExternalOutput, "SETEXTERNALOUTPUT<type>"},
      {"PUTEXTERNALOUTPUT", P, Any, SetExternalOutput, "PUTEXTERNALOUTPUT<type>"},
      {"GETEXTERNALOUTPUT", E, Any, GetExternalOutput, "GETEXTERNALOUTPUT"},
      {"SETTRIGGERPREDELAY", P, Any, SetTriggerPreDelay, "SETTRIGGERPREDELAY<ms>"},
      {"PUTTRIGGERPREDELAY", P, Any, SetTriggerPreDelay, "PUTTRIGGERPREDELAY<ms>"},
      {"SETTRIGGERPOSTDELAY", P, Any, SetTriggerPostDelay, "SETTRIGGERPOSTDELAY<ms>"},
      {"PUTTRIGGERPOSTDELAY", P, Any, SetTriggerPostDelay, "PUTTRIGGERPOSTDELAY<ms>"},
      // ---- sequences ----
      {"SETSEQUENCESTARTDELAY", P, Led, SequenceStartDelay, "SETSEQUENCESTARTDELAY<ms>"},
      {"PUTSEQUENCESTARTDELAY", P, Led, SequenceStartDelay, "PUTSEQUENCESTARTDELAY<ms>"},
      {"SETSEQUENCECAPTURE", P, Led, SequenceCaptureTime, "SETSEQUENCECAPTURE<ms>"},
      {"PUTSEQUENCECAPTURE", P, Led, SequenceCaptureTime, "PUTSEQUENCECAPTURE<ms>"},
      {"SETSEQUENCEWAIT", P, Led, SequenceWait, "SETSEQUENCEWAIT<ms>"},
      {"PUTSEQUENCEWAIT", P, Led, SequenceWait, "PUTSEQUENCEWAIT<ms>"},
      {"SETSEQUENCENUMBER", P, Led, SequenceNumber, "SETSEQUENCENUMBER<n>"},
      {"PUTSEQUENCENUMBER", P, Led, SequenceNumber, "PUTSEQUENCENUMBER<n>"},
      {"PUTSEQUENCEMODE", P, Led, SequenceModeCommand, "PUTSEQUENCEMODE<0|1>"},
      {"PUTSEQUENCECHANNEL", P, Led, SequenceChannelCommand, "PUTSEQUENCECHANNEL<nn>"},
      {"CS", E, Led, SequenceCaptureCommand, "CS"},
  };
  return table;
}

const std::vector<const Command*>& LongestFirst() {
  static const std::vector<const Command*> order = [] {
    std::vector<const Command*> v;
    for (const Command& cmd : Table()) v.push_back(&cmd);
    std::stable_sort(v.begin(), v.end(), [](const Command* a, const Command* b) {
      return a->name.size() > b->name.size();
    });
    return v;
  }();
  return order;
}

Reply Help(const Call& c) {
  std::vector<std::string> lines = {"Commands:"};
  if (c.st.config.knowsBus) {
    lines.emplace_back("BUSFREE");
    lines.emplace_back("BUSGET<serial>");
    lines.emplace_back("BUSC[<range>][PWM[<frames>]]");
    lines.emplace_back("BUSCE<serial>");
  }
  for (const Command& cmd : Table())
    if (Fits(cmd.family, c.st)) lines.emplace_back(cmd.usage);
  if (!c.st.spectrometer) {
    lines.insert(lines.end(), CalibrationUsage().begin(), CalibrationUsage().end());
  }
  return SayOnce(c.st, std::move(lines));
}

bool Matches(const Command& cmd, const std::string& upper) {
  return cmd.match == Match::Exact ? upper == cmd.name : upper.starts_with(cmd.name);
}

}  // namespace

Reply Execute(Instrument::State& st, const std::string& line) {
  const std::string upper = Upper(line);
  const auto fixed = st.fixedAnswers.find(upper);
  if (fixed != st.fixedAnswers.end()) return SayOnce(st, {fixed->second});
  if (std::optional<Reply> calibration = ExecuteCalibration(st, upper)) return *calibration;
  for (const Command* cmd : LongestFirst()) {
    if (!Fits(cmd->family, st) || !Matches(*cmd, upper)) continue;
    const std::string_view arg = std::string_view(upper).substr(cmd->name.size());
    return cmd->handler(Call{st, arg, line});
  }
  return SyntaxError(st);
}

bool JoinBroadcastCapture(Instrument::State& st, std::string_view arg, const std::string& line) {
  const auto cap = ParseLedCapture(arg);
  if (!cap) return false;
  if (!st.spectrometer) BeginLedCapture(st, *cap, line);
  return true;
}

std::optional<long> Number(std::string_view text, size_t maxDigits, long lo, long hi) {
  if (text.empty() || text.size() > maxDigits) return std::nullopt;
  long value = 0;
  for (char c : text) {
    if (!std::isdigit(static_cast<unsigned char>(c))) return std::nullopt;
    value = value * 10 + (c - '0');
  }
  if (value < lo || value > hi) return std::nullopt;
  return value;
}

int CaptureMs(const Instrument::State& st, double ms) {
  if (st.config.captureMs >= 0) return st.config.captureMs;
  return static_cast<int>(std::lround(std::min(ms * st.config.captureTimeScale, 1.0e9)));
}

Reply CaptureEndAnswer(Instrument::State& st) {
  Reply reply;
  switch (st.config.busCapture) {
    case BusCapture::NeverDone: return reply;
    case BusCapture::SyntaxError: reply = SyntaxError(st); break;
    case BusCapture::Normal:
      if (std::chrono::steady_clock::now() < st.captureEnds) return reply;
      reply = Ok(st);
      break;
  }
  return SendsLateEot(st) ? WithLateEot(std::move(reply)) : reply;
}

// A spectrometer takes a spectrum at its default exposure and only says
// "OK": its readings are fetched with its own commands.
Reply TriggerFired(Instrument::State& st) {
  const TriggerSetup& t = st.trigger;
  if (!t.enabled) return Reply{};
  std::vector<std::string> lines;
  int ms = 0;
  if (st.spectrometer) {
    ms = CaptureMs(st, ExposureMs(st, *ParseExposure(st, "")));
    CountCapture(st, "TRIGGER", ms);
  } else {
    ms = BeginLedCapture(st, LedCapture{t.range, t.pwm, -1}, "TRIGGER");
    const bool logarithmic = st.current().logarithmic;
    if (t.output != "NONE") {
      for (size_t i = 0; i < st.captured.size(); ++i) {
        lines.push_back(
            TriggerReading(t.output, Seen{st.captured[i], st.calibration[i], logarithmic}));
      }
    }
  }
  if (lines.empty()) lines.emplace_back("OK");
  Reply reply;
  reply.messages.push_back(Say(st, std::move(lines), t.preDelayMs + ms + t.postDelayMs));
  return reply;
}

}  // namespace zeltosim::detail
