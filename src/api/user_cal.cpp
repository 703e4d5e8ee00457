// User calibration: a fiber's RGB matrix, xy offsets, wavelength offset,
// intensity gain and absolute-intensity factor.
#include <algorithm>
#include <array>
#include <cmath>
#include <initializer_list>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "api/capture.hpp"
#include "api/common.hpp"
#include "device/exchange.hpp"
#include "device/identify.hpp"
#include "device/intensity_scale.hpp"
#include "device/settings.hpp"
#include "device/user_cal.hpp"
#include "frame/errors.hpp"
#include "frame/registry.hpp"
#include "frame/utils.hpp"
#include "zeltocom.h"

using namespace zeltocom;

namespace {

// ---- The port and the fiber ----

// Runs `body` with the instrument that holds the line of the open port at
// `devPath`, once `fiber` is one of its fibers.
template <typename Body>
int OnFiber(const char* devPath, int fiber, Body body) {
  return Guarded(-1, [&](Call& call) {
    const std::optional<HeldPort> port =
        call.Hold(PortsList_GetByDevPath(Arg(devPath)), "The port is not in use");
    if (!port) return -1;
    s_CommPort* device = port->owner();
    CMD_LoadSettings_NumFibers(device);
    if (fiber < 1 || fiber > device->settings.numFibers) {
      SetError(device, StringPrintf("Fiber should be a value between 1 and %d",
                                    device->settings.numFibers));
      return -1;
    }
    return body(*port, device);
  });
}

int Refused(s_CommPort* device, const std::string& text) {
  SetError(device, text);
  return 0;
}

bool OutputsGiven(s_CommPort* device, std::initializer_list<const void*> outputs) {
  if (std::ranges::all_of(outputs, [](const void* output) { return output != nullptr; })) {
    return true;
  }
  SetError(device, kNoBuffer);
  return false;
}

bool AllFinite(s_CommPort* device, std::initializer_list<double> values) {
  if (std::ranges::all_of(values, [](double value) { return std::isfinite(value); })) return true;
  SetError(device, "Calibration values must be finite numbers");
  return false;
}

// ---- RGB adjustment ----

// The three raw values of a fiber's "GETRGBEXT" answer under one reference light.
using RawRgb = std::array<unsigned, 3>;

// The commands that send them back carry seven digits.
constexpr unsigned kMaxRawRgb = 9999999;

// The last raw readings per fiber and reference colour, shared by all ports;
// keyed by fiber, so any fiber count an instrument reports fits.
std::mutex mtxRefRGB;
std::map<int, RawRgb> refRED;  // guarded by mtxRefRGB, as the two below
std::map<int, RawRgb> refGREEN;
std::map<int, RawRgb> refBLUE;

struct Colour {
  const char* name;
  std::map<int, RawRgb>* table;
};
const std::array<Colour, 3> kColours = {
    {{"RED", &refRED}, {"GREEN", &refGREEN}, {"BLUE", &refBLUE}}};

// The failure texts of the first, second and third command of a step.
constexpr std::array<const char*, 3> kStepFailures = {"Syntax error or timeout detected (ID01)",
                                                      "Syntax error or timeout detected (ID02)",
                                                      "Syntax error or timeout detected (ID03)"};

std::map<int, RawRgb>* TableOf(char colour) {
  switch (colour) {
    case 'R': return &refRED;
    case 'G': return &refGREEN;
    case 'B': return &refBLUE;
    default: return nullptr;
  }
}

// Only a command that gave 0 has failed in the RGB adjustment.
int TakeRgbValues(s_CommPort* device, int fiber, char colour) {
  std::string intensity;
  if (CMD_SendCommand(device, StringPrintf("GETINTENSITY%02d", fiber), 500, &intensity) == 0) {
    return Refused(device, kStepFailures[0]);
  }
  const std::optional<unsigned> level = SingleReading<unsigned>(intensity);
  if (!level) return Refused(device, "Wrong intensity reading");
  if (*level == 0) return Refused(device, "Under-range detected");
  std::string raw;
  if (CMD_SendCommand(device, StringPrintf("GETRGBEXT%02d", fiber), 500, &raw) == 0) {
    return Refused(device, kStepFailures[1]);
  }
  std::map<int, RawRgb>* table = TableOf(colour);
  if (table == nullptr) return Refused(device, "Wrong Color. Please use REG, GREEN or BLUE.");
  RawRgb values{};
  Reading reading(raw);
  for (unsigned& value : values) {
    const std::optional<unsigned> count = reading.Next<unsigned>();
    if (!count || *count > kMaxRawRgb) return Refused(device, "Wrong RGB reading");
    value = *count;
  }
  const std::lock_guard lock(mtxRefRGB);
  (*table)[fiber] = values;
  return 1;
}

// A reference light's true chromaticity and absolute intensity.
struct TrueValues {
  float x;
  float y;
  double intensity;
};

std::array<RawRgb, 3> RecordedValues(int fiber) {
  std::array<RawRgb, 3> recorded{};
  const std::lock_guard lock(mtxRefRGB);
  for (std::size_t i = 0; i < kColours.size(); ++i) {
    const auto found = kColours[i].table->find(fiber);
    if (found != kColours[i].table->end()) recorded[i] = found->second;
  }
  return recorded;
}

// Sends the commands in order; the first that gives 0 fails with the text
// of its place.
bool SentInOrder(s_CommPort* device, const std::array<std::string, 3>& commands,
                 TimeoutMs timeoutMs) {
  for (std::size_t i = 0; i < commands.size(); ++i) {
    if (CMD_SendCommand(device, commands[i], timeoutMs) == 0) {
      SetError(device, kStepFailures[i]);
      return false;
    }
  }
  return true;
}

int AdjustRgb(s_CommPort* device, int fiber, const std::array<TrueValues, 3>& truth) {
  for (const TrueValues& light : truth) {
    if (!AllFinite(device, {light.x, light.y, light.intensity})) return -1;
  }
  const std::array<RawRgb, 3> raw = RecordedValues(fiber);
  for (std::size_t i = 0; i < kColours.size(); ++i) {
    const char* name = kColours[i].name;
    const std::array<std::string, 3> puts = {
        StringPrintf("PUT%sR%02d%07u", name, fiber, raw[i][0]),
        StringPrintf("PUT%sG%02d%07u", name, fiber, raw[i][1]),
        StringPrintf("PUT%sB%02d%07u", name, fiber, raw[i][2])};
    if (!SentInOrder(device, puts, 500)) return 0;
  }
  for (std::size_t i = 0; i < kColours.size(); ++i) {
    const char* name = kColours[i].name;
    const std::array<std::string, 3> learns = {
        WithDecimalPoint(StringPrintf("LEARN%sx%02d%0.4f", name, fiber, truth[i].x)),
        WithDecimalPoint(StringPrintf("LEARN%sy%02d%0.4f", name, fiber, truth[i].y)),
        StringPrintf("LEARN%sint%02d", name, fiber) + FormatExponential(truth[i].intensity)};
    if (!SentInOrder(device, learns, 10000)) return 0;
  }
  if (CMD_SendCommand(device, StringPrintf("SETRGBM%02d", fiber), 5000) == 0) {
    return Refused(device, "Syntax error or timeout detected while calculating RGB matrix");
  }
  return 1;
}

int ResetRgb(s_CommPort* device, int fiber) {
  if (CMD_SendCommand(device, StringPrintf("RESETCALMODE%02d", fiber), 1200) == 0) return 0;
  if (CMD_SendCommand(device, StringPrintf("RESETRGBM%02d", fiber), 3000) == 0) return 0;
  if (CMD_Set_AbsoluteIntensityFactor(device, fiber, 1.0, 1) != 1) {
    return Refused(device, "Unable to set Absolute Intensity factor");
  }
  return 1;
}

// ---- Offsets, gain and factor ----

constexpr int kSetForm = 1;  // stored in the instrument, not only in use
constexpr TimeoutMs kReadingMs = 500;

constexpr const char* kXyOffsets = "xy offsets";
constexpr const char* kWavelengthOffset = "Wavelength offset";
constexpr const char* kIntensityGain = "Intensity gain";
constexpr const char* kAbsIntFactor = "Absolute Intensity factor";

int UnableTo(s_CommPort* device, const char* step, const char* what) {
  return Refused(device, StringPrintf("Unable to %s %s", step, what));
}

int WrongReading(s_CommPort* device) {
  return Refused(device, "Wrong reading from the instrument");
}

// A getter's result as the family reports it: 1 read, else 0 with why.
int ReadResult(s_CommPort* device, int read, const char* what) {
  if (read == 1) return 1;
  return read == kWrongReading ? WrongReading(device) : UnableTo(device, "read", what);
}

// A getter's body: `read` fills `output` only from an answer.
template <typename Value>
int ReadValue(const char* devPath, int fiber, Value* output, int (*read)(s_CommPort*, int, Value*),
              const char* what) {
  return OnFiber(devPath, fiber, [&](const HeldPort&, s_CommPort* device) {
    if (!OutputsGiven(device, {output})) return -1;
    return ReadResult(device, read(device, fiber, output), what);
  });
}

int WriteXyOffsets(s_CommPort* device, int fiber, float x, float y, int setMode) {
  if (!AllFinite(device, {x, y})) return -1;
  if (CMD_Set_xyOffsets(device, fiber, x, y, setMode) != 1) {
    return UnableTo(device, "set", kXyOffsets);
  }
  return 1;
}

int WriteWavelengthOffset(s_CommPort* device, int fiber, int offset, int setMode) {
  if (offset < -kMaxWavelengthOffset || offset > kMaxWavelengthOffset) {
    SetError(device, StringPrintf("Wavelength offset should be a value between %d and %d",
                                  -kMaxWavelengthOffset, kMaxWavelengthOffset));
    return -1;
  }
  if (CMD_Set_WavelengthOffset(device, fiber, offset, setMode) != 1) {
    return UnableTo(device, "set", kWavelengthOffset);
  }
  return 1;
}

int WriteIntensityGain(s_CommPort* device, int fiber, int gain, int setMode) {
  if (gain < kMinIntensityGain || gain > kMaxIntensityGain) {
    SetError(device, StringPrintf("Intensity gain should be a value between %d and %d",
                                  kMinIntensityGain, kMaxIntensityGain));
    return -1;
  }
  if (CMD_Set_IntensityGain(device, fiber, gain, setMode) != 1) {
    return UnableTo(device, "set", kIntensityGain);
  }
  return 1;
}

int WriteAbsIntFactor(s_CommPort* device, int fiber, double factor, int setMode) {
  if (!AllFinite(device, {factor})) return -1;
  if (CMD_Set_AbsoluteIntensityFactor(device, fiber, factor, setMode) != 1) {
    return UnableTo(device, "set", kAbsIntFactor);
  }
  return 1;
}

// What the fiber sees now: an LED capture with automatic range, then
// `reading`'s answer. 1, or the failure with its text set.
int Measure(const HeldPort& port, s_CommPort* device, const std::string& reading, const char* what,
            std::string* answer) {
  const int captured = CaptureLed(port, 0, 0, 0);
  if (captured != 1) {
    SetError(device, "Capture failed: " + GetPortErrorText(*device));
    return captured;
  }
  if (CMD_SendCommand(device, reading, kReadingMs, answer) != 1)
    return UnableTo(device, "read", what);
  return 1;
}

int AdjustXyOffsets(const HeldPort& port, s_CommPort* device, int fiber, float xReference,
                    float yReference) {
  if (!AllFinite(device, {xReference, yReference})) return -1;
  std::string answer;
  const int measured =
      Measure(port, device, StringPrintf("GETxyI%02d", fiber), "chromaticity", &answer);
  if (measured != 1) return measured;
  Reading reading(answer);
  const std::optional<float> x = reading.Next<float>();
  const std::optional<float> y = reading.Next<float>();
  if (!x || !y) return WrongReading(device);
  float xOffset = 0;
  float yOffset = 0;
  const int read = CMD_Get_xyOffsets(device, fiber, &xOffset, &yOffset);
  if (read != 1) return ReadResult(device, read, kXyOffsets);
  return WriteXyOffsets(device, fiber, xOffset + (xReference - *x), yOffset + (yReference - *y),
                        kSetForm);
}

int AdjustWavelengthOffset(const HeldPort& port, s_CommPort* device, int fiber, int reference) {
  std::string answer;
  const int measured = Measure(port, device, StringPrintf("GETWAVELENGTH%02d", fiber),
                               "dominant wavelength", &answer);
  if (measured != 1) return measured;
  const std::optional<int> wavelength = SingleReading<int>(answer);
  if (!wavelength) return WrongReading(device);
  int offset = 0;
  const int read = CMD_Get_WavelengthOffset(device, fiber, &offset);
  if (read != 1) return ReadResult(device, read, kWavelengthOffset);
  // Three ints, so a long long holds any result.
  const long long adjusted = static_cast<long long>(offset) + reference - *wavelength;
  if (adjusted < -kMaxWavelengthOffset || adjusted > kMaxWavelengthOffset) {
    return Refused(device, StringPrintf("The new wavelength offset (%lld) is outside %d to %d",
                                        adjusted, -kMaxWavelengthOffset, kMaxWavelengthOffset));
  }
  return WriteWavelengthOffset(device, fiber, static_cast<int>(adjusted), kSetForm);
}

// The reference is linear, so a logarithmic reading is converted first.
int AdjustIntensityGain(const HeldPort& port, s_CommPort* device, int fiber, int reference) {
  std::string answer;
  const int measured =
      Measure(port, device, StringPrintf("GETINTENSITY%02d", fiber), "intensity", &answer);
  if (measured != 1) return measured;
  const std::optional<int> reported = SingleReading<int>(answer);
  if (!reported) return WrongReading(device);
  if (CMD_LoadSettings_IntensityMode(device) != 1 ||
      CMD_LoadSettings_FirmwareVersion(device) != 1) {
    return UnableTo(device, "read", "the intensity mode");
  }
  const int linear = AnalyserIntensityLogToLin(device, *reported, 0, 0);
  if (linear <= 0) return Refused(device, "Under-range detected");
  int gain = 0;
  const int read = CMD_Get_IntensityGain(device, fiber, &gain);
  if (read != 1) return ReadResult(device, read, kIntensityGain);
  const double adjusted = std::round(static_cast<double>(gain) * reference / linear);
  if (!(adjusted >= kMinIntensityGain && adjusted <= kMaxIntensityGain)) {
    return Refused(device, StringPrintf("The new intensity gain (%.0f) is outside %d to %d",
                                        adjusted, kMinIntensityGain, kMaxIntensityGain));
  }
  return WriteIntensityGain(device, fiber, static_cast<int>(adjusted), kSetForm);
}

int AdjustAbsIntFactor(const HeldPort& port, s_CommPort* device, int fiber, double reference) {
  if (!AllFinite(device, {reference})) return -1;
  std::string answer;
  const int measured =
      Measure(port, device, StringPrintf("GETABSINT%02d", fiber), "absolute intensity", &answer);
  if (measured != 1) return measured;
  const std::optional<double> absolute = SingleReading<double>(answer);
  if (!absolute) return WrongReading(device);
  if (!(*absolute > 0)) return Refused(device, "Under-range detected");
  double factor = 0;
  const int read = CMD_Get_AbsoluteIntensityFactor(device, fiber, &factor);
  if (read != 1) return ReadResult(device, read, kAbsIntFactor);
  const double adjusted = factor * reference / *absolute;
  if (!ExponentFits(adjusted)) {
    return Refused(device, StringPrintf("The new absolute intensity factor (%g) is outside "
                                        "1E-99 to 1E+99",
                                        adjusted));
  }
  return WriteAbsIntFactor(device, fiber, adjusted, kSetForm);
}

}  // namespace

extern "C" {

// ---- RGB adjustment ----

int ZeltoCom_UserCal_ResetRGBAdj(const char* devPath, int fiber) {
  return OnFiber(devPath, fiber,
                 [&](const HeldPort&, s_CommPort* device) { return ResetRgb(device, fiber); });
}

int ZeltoCom_UserCal_TakeRGBCurrentValues(const char* devPath, int fiber, char colour) {
  return OnFiber(devPath, fiber, [&](const HeldPort&, s_CommPort* device) {
    return TakeRgbValues(device, fiber, colour);
  });
}

int ZeltoCom_UserCal_AdjustRGB(const char* devPath, int fiber, float xRed, float yRed,
                               double intensityRed, float xGreen, float yGreen,
                               double intensityGreen, float xBlue, float yBlue,
                               double intensityBlue) {
  return OnFiber(devPath, fiber, [&](const HeldPort&, s_CommPort* device) {
    return AdjustRgb(device, fiber,
                     {{{xRed, yRed, intensityRed},
                       {xGreen, yGreen, intensityGreen},
                       {xBlue, yBlue, intensityBlue}}});
  });
}

// ---- xy offsets ----

int ZeltoCom_UserCal_ResetxyOffsets(const char* devPath, int fiber) {
  return OnFiber(devPath, fiber, [&](const HeldPort&, s_CommPort* device) {
    return WriteXyOffsets(device, fiber, 0.0f, 0.0f, kSetForm);
  });
}

int ZeltoCom_UserCal_GetxyOffsets(const char* devPath, int fiber, float* x, float* y) {
  return OnFiber(devPath, fiber, [&](const HeldPort&, s_CommPort* device) {
    if (!OutputsGiven(device, {x, y})) return -1;
    return ReadResult(device, CMD_Get_xyOffsets(device, fiber, x, y), kXyOffsets);
  });
}

int ZeltoCom_UserCal_SetxyOffsets(const char* devPath, int fiber, float x, float y, int setMode) {
  return OnFiber(devPath, fiber, [&](const HeldPort&, s_CommPort* device) {
    return WriteXyOffsets(device, fiber, x, y, setMode);
  });
}

int ZeltoCom_UserCal_AdjustxyOffsets(const char* devPath, int fiber, float xReference,
                                     float yReference) {
  return OnFiber(devPath, fiber, [&](const HeldPort& port, s_CommPort* device) {
    return AdjustXyOffsets(port, device, fiber, xReference, yReference);
  });
}

// ---- Wavelength offset ----

int ZeltoCom_UserCal_ResetWavelengthOffset(const char* devPath, int fiber) {
  return OnFiber(devPath, fiber, [&](const HeldPort&, s_CommPort* device) {
    return WriteWavelengthOffset(device, fiber, 0, kSetForm);
  });
}

int ZeltoCom_UserCal_GetWavelengthOffset(const char* devPath, int fiber, int* offset) {
  return ReadValue(devPath, fiber, offset, CMD_Get_WavelengthOffset, kWavelengthOffset);
}

int ZeltoCom_UserCal_SetWavelengthOffset(const char* devPath, int fiber, int offset, int setMode) {
  return OnFiber(devPath, fiber, [&](const HeldPort&, s_CommPort* device) {
    return WriteWavelengthOffset(device, fiber, offset, setMode);
  });
}

int ZeltoCom_UserCal_AdjustWavelengthOffset(const char* devPath, int fiber,
                                            int wavelengthReference) {
  return OnFiber(devPath, fiber, [&](const HeldPort& port, s_CommPort* device) {
    return AdjustWavelengthOffset(port, device, fiber, wavelengthReference);
  });
}

// ---- Intensity gain ----

int ZeltoCom_UserCal_ResetIntensityGain(const char* devPath, int fiber) {
  return OnFiber(devPath, fiber, [&](const HeldPort&, s_CommPort* device) {
    return WriteIntensityGain(device, fiber, 100, kSetForm);
  });
}

int ZeltoCom_UserCal_GetIntensityGain(const char* devPath, int fiber, int* gain) {
  return ReadValue(devPath, fiber, gain, CMD_Get_IntensityGain, kIntensityGain);
}

int ZeltoCom_UserCal_SetIntensityGain(const char* devPath, int fiber, int gain, int setMode) {
  return OnFiber(devPath, fiber, [&](const HeldPort&, s_CommPort* device) {
    return WriteIntensityGain(device, fiber, gain, setMode);
  });
}

int ZeltoCom_UserCal_AdjustIntensityGain(const char* devPath, int fiber, int intensityReference) {
  return OnFiber(devPath, fiber, [&](const HeldPort& port, s_CommPort* device) {
    return AdjustIntensityGain(port, device, fiber, intensityReference);
  });
}

// ---- Absolute-intensity factor ----

int ZeltoCom_UserCal_ResetAbsIntFactor(const char* devPath, int fiber) {
  return OnFiber(devPath, fiber, [&](const HeldPort&, s_CommPort* device) {
    return WriteAbsIntFactor(device, fiber, 1.0, kSetForm);
  });
}

int ZeltoCom_UserCal_GetAbsIntFactor(const char* devPath, int fiber, double* factor) {
  return ReadValue(devPath, fiber, factor, CMD_Get_AbsoluteIntensityFactor, kAbsIntFactor);
}

int ZeltoCom_UserCal_SetAbsIntFactor(const char* devPath, int fiber, double factor, int setMode) {
  return OnFiber(devPath, fiber, [&](const HeldPort&, s_CommPort* device) {
    return WriteAbsIntFactor(device, fiber, factor, setMode);
  });
}

int ZeltoCom_UserCal_AdjustAbsIntFactor(const char* devPath, int fiber,
                                        double absoluteIntensityReference) {
  return OnFiber(devPath, fiber, [&](const HeldPort& port, s_CommPort* device) {
    return AdjustAbsIntFactor(port, device, fiber, absoluteIntensityReference);
  });
}

}  // extern "C"
