// The values an LED analyser reports for the light one fibre saw. All are
// derived from the fibre's relative colour and linear intensity, corrected by
// the fibre's user calibration, so they stay consistent with each other and
// reproducible.
#pragma once

#include <string>

#include "zeltosim/zeltosim.hpp"

namespace zeltosim::detail {

// What a fibre's readings depend on.
struct Seen {
  const Fiber& light;  // as the last capture took it
  const UserCalibration& cal;
  bool logarithmic;  // the intensity scale
};

// Intensity in the instrument's scale, gain applied: linear as it is, or
// logarithmic as round(20814 * ln(I / 1000 + 1)).
int ReportedIntensity(const Seen& s);

std::string RgbiText(const Seen& s);        // "R G B I"
std::string XyText(const Seen& s);          // "0.3288 0.4232"
std::string IntensityText(const Seen& s);   // "I"
std::string HsiText(const Seen& s);         // "100.89 40.00 I"
std::string CctText(const Seen& s);         // "5613"
std::string WavelengthText(const Seen& s);  // "549"
std::string RgbExtText(const Seen& s);      // raw sensor counts, "36000 60000 24000"
std::string AbsIntText(const Seen& s);      // absolute intensity, "1.200000E+00"

}  // namespace zeltosim::detail
