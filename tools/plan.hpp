// A test plan: the instruments and fibers a station reads, and the windows
// their readings must fall in, as its TOML file gives them.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace cli {

// Both ends belong to the window.
struct Window {
  double low = 0;
  double high = 0;
  bool Holds(double value) const { return value >= low && value <= high; }
};

// A limit left out is not checked.
struct Limits {
  std::optional<Window> x;
  std::optional<Window> y;
  std::optional<Window> intensity;  // linear
  std::optional<Window> wavelength;
  std::optional<std::vector<std::string>> accept;  // the bins a reading may fall in
};

struct PlanInstrument {
  std::string serial;  // one of serial and path
  std::string path;
  std::vector<int> fibers;  // empty: every fiber the instrument has
  int captureRange = 0;
  bool pwm = false;
  // How the plan names it.
  const std::string& Name() const { return serial.empty() ? path : serial; }
};

// A [[fiber]] entry: its limits replace the plan's, limit by limit.
struct FiberLimits {
  std::size_t instrument;  // in Plan::instruments
  int fiber;
  Limits limits;
};

// A [[sequence]] entry: a blinking light's frequency (Hz) and duty cycle
// (the lit share, 0 to 1).
struct SequenceCheck {
  std::size_t instrument;
  int fiber;
  std::optional<Window> frequency;
  std::optional<Window> dutyCycle;
};

struct Plan {
  std::string name;
  std::string station;  // "" when the plan names none
  int baud = 0;         // 0: each instrument's rate is searched
  std::string bins;     // the bin file's path, "" for none
  Limits limits;
  std::vector<PlanInstrument> instruments;
  std::vector<FiberLimits> fibers;
  std::vector<SequenceCheck> sequences;

  Limits LimitsOf(std::size_t instrument, int fiber) const;
};

// The plan in `file`; a bad plan is a usage error that names the file, the
// line and the key.
Plan ReadPlan(const std::string& file);

}  // namespace cli
