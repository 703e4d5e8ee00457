// The values an LED analyser reports for the light one fibre saw. All are
// derived from the fibre's relative colour and linear intensity, so they stay
// consistent with each other and reproducible.
#pragma once

#include <string>

#include "zeltosim/zeltosim.hpp"

namespace zeltosim::detail {

// Intensity in the instrument's scale: linear as it is, or logarithmic as
// round(20814 * ln(I / 1000 + 1)).
int ReportedIntensity(const Fiber& f, bool logarithmic);

std::string RgbiText(const Fiber& f, bool logarithmic);        // "R G B I"
std::string XyText(const Fiber& f);                            // "0.3288 0.4232"
std::string IntensityText(const Fiber& f, bool logarithmic);   // "I"
std::string HsiText(const Fiber& f, bool logarithmic);         // "100.89 40.00 I"
std::string CctText(const Fiber& f);                           // "5613"
std::string WavelengthText(const Fiber& f);                    // "549"

}  // namespace zeltosim::detail
