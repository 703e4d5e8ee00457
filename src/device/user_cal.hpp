#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace zeltocom {

struct s_CommPort;

// A fiber's user-calibration values in the instrument. Each writes to and
// waits for whoever holds the line; the caller holds the port's line and has
// loaded the device type (a Node numbers its fibers with three digits).
// Getters give 1 when read; 0 without an answer in time, or on a refusal;
// kWrongReading for an answer that is no number of the output's type. They
// write their outputs only on 1.
constexpr int kWrongReading = 2;

// "GETXOFFSET<fiber>" then "GETYOFFSET<fiber>"; a failed x stops before y.
int CMD_Get_xyOffsets(s_CommPort* port, int fiber, float* x, float* y);
// SET (any setMode but 0) or PUT, "XOFFSET<fiber>+0.000" then the same for
// Y. 1 or 0.
int CMD_Set_xyOffsets(s_CommPort* port, int fiber, float x, float y, int setMode);

int CMD_Get_WavelengthOffset(s_CommPort* port, int fiber, int* offset);
// The command carries a sign and two or three digits.
constexpr int kMaxWavelengthOffset = 999;

// SET (any setMode but 0) or PUT, "WAVELENGTHOFFSET<fiber>+05". 1 or 0; an
// offset beyond +-999 sends nothing and gives 0.
int CMD_Set_WavelengthOffset(s_CommPort* port, int fiber, int offset, int setMode);

constexpr int kMinIntensityGain = 50;
constexpr int kMaxIntensityGain = 150;

int CMD_Get_IntensityGain(s_CommPort* port, int fiber, int* gain);
// SET (setMode 1 only) or PUT, "INTGAIN<fiber><three-digit gain>". A gain
// outside [50, 150] sends nothing and gives 0; otherwise 1 unless the
// exchange gave 0 (a failed write counts as sent).
int CMD_Set_IntensityGain(s_CommPort* port, int fiber, int gain, int setMode);

int CMD_Get_AbsoluteIntensityFactor(s_CommPort* port, int fiber, double* factor);
// SET (setMode 1 only) or PUT, "ABSINTMULT<fiber>1.50000E+00". 1 unless the
// exchange gave 0.
int CMD_Set_AbsoluteIntensityFactor(s_CommPort* port, int fiber, double factor, int setMode);

// Hosts may run under a locale whose decimal separator is a comma; the
// instrument reads points only.
std::string WithDecimalPoint(std::string text);

// "%0.5E" with the exponent as a sign and exactly two digits (the last two
// of a longer one) and a point whatever the locale: 1.5 is "1.50000E+00".
std::string FormatExponential(double value);
// Whether FormatExponential writes `value` whole: finite, with an exponent
// of at most two digits.
bool ExponentFits(double value);

}  // namespace zeltocom
