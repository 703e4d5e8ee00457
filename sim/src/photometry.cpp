#include "photometry.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

namespace zeltosim::detail {
namespace {

struct Rgb {
  double r, g, b;
  double sum() const { return r + g + b; }
};

double NonNegative(double v) { return std::isfinite(v) && v > 0.0 ? v : 0.0; }

Rgb ColourOf(const Fiber& f) {
  return Rgb{NonNegative(f.red), NonNegative(f.green), NonNegative(f.blue)};
}

struct Xy {
  double x = 0.0, y = 0.0;
};

// Linear RGB with sRGB primaries and a D65 white.
Xy ChromaticityOf(const Rgb& c) {
  const double X = 0.4124 * c.r + 0.3576 * c.g + 0.1805 * c.b;
  const double Y = 0.2126 * c.r + 0.7152 * c.g + 0.0722 * c.b;
  const double Z = 0.0193 * c.r + 0.1192 * c.g + 0.9505 * c.b;
  const double sum = X + Y + Z;
  if (sum <= 0.0) return {};
  return Xy{X / sum, Y / sum};
}

// Hue in degrees and saturation in percent, as in the HSI colour model.
struct HueSat {
  double hue = 0.0, saturation = 0.0;
};

HueSat HueSatOf(const Rgb& c) {
  const double sum = c.sum();
  if (sum <= 0.0) return {};
  const double saturation = 100.0 * (1.0 - 3.0 * std::min({c.r, c.g, c.b}) / sum);
  const double num = 0.5 * ((c.r - c.g) + (c.r - c.b));
  const double den = std::sqrt((c.r - c.g) * (c.r - c.g) + (c.r - c.b) * (c.g - c.b));
  if (den <= 1e-12) return HueSat{0.0, saturation};  // grey: no hue
  const double theta = std::acos(std::clamp(num / den, -1.0, 1.0)) * 180.0 / M_PI;
  return HueSat{c.b > c.g ? 360.0 - theta : theta, saturation};
}

// The chromaticity the instrument reports: the light's, plus the offsets.
Xy CalibratedXy(const Seen& s) {
  const Xy xy = ChromaticityOf(ColourOf(s.light));
  return Xy{xy.x + s.cal.xOffset.value, xy.y + s.cal.yOffset.value};
}

std::string Format(const char* format, auto... values) {
  char text[96];
  std::snprintf(text, sizeof text, format, values...);
  return text;
}

}  // namespace

int ReportedIntensity(const Seen& s) {
  const double linear = NonNegative(s.light.intensity) * s.cal.intensityGain.value / 100.0;
  const double value = s.logarithmic ? 20814.0 * std::log(linear / 1000.0 + 1.0) : linear;
  return static_cast<int>(std::lround(std::min(value, 2.0e9)));
}

std::string RgbiText(const Seen& s) {
  const Rgb c = ColourOf(s.light);
  const double sum = c.sum();
  auto share = [sum](double v) {
    return sum > 0.0 ? static_cast<int>(std::lround(255.0 * v / sum)) : 0;
  };
  return Format("%d %d %d %d", share(c.r), share(c.g), share(c.b), ReportedIntensity(s));
}

std::string XyText(const Seen& s) {
  const Xy xy = CalibratedXy(s);
  return Format("%.4f %.4f", xy.x, xy.y);
}

std::string IntensityText(const Seen& s) { return std::to_string(ReportedIntensity(s)); }

std::string HsiText(const Seen& s) {
  const HueSat hs = HueSatOf(ColourOf(s.light));
  return Format("%.2f %.2f %d", hs.hue, hs.saturation, ReportedIntensity(s));
}

// McCamy's approximation, kept within what an analyser would display.
std::string CctText(const Seen& s) {
  const Xy xy = CalibratedXy(s);
  if (xy.x <= 0.0 && xy.y <= 0.0) return "0";
  const double slope = 0.1858 - xy.y;
  if (std::fabs(slope) < 1e-9) return "0";
  const double n = (xy.x - 0.3320) / slope;
  const double cct = 449.0 * n * n * n + 3525.0 * n * n + 6823.3 * n + 5520.33;
  return std::to_string(std::lround(std::clamp(cct, 1000.0, 30000.0)));
}

// Dominant wavelength read off the hue circle; purples, which have none,
// fold back to the red end. A grey light has none at all (0).
std::string WavelengthText(const Seen& s) {
  const HueSat hs = HueSatOf(ColourOf(s.light));
  if (hs.saturation <= 0.0) return "0";
  static constexpr std::array<std::array<double, 2>, 9> kHueToNm = {{
      {0, 625},
      {30, 600},
      {60, 578},
      {90, 560},
      {120, 530},
      {180, 490},
      {240, 465},
      {270, 450},
      {360, 625},
  }};
  double nm = 625;
  for (size_t i = 1; i < kHueToNm.size(); ++i) {
    const auto& lo = kHueToNm[i - 1];
    const auto& hi = kHueToNm[i];
    if (hs.hue <= hi[0]) {
      const double t = (hs.hue - lo[0]) / (hi[0] - lo[0]);
      nm = lo[1] + t * (hi[1] - lo[1]);
      break;
    }
  }
  return std::to_string(std::lround(nm) + s.cal.wavelengthOffset.value);
}

// The colour sensor's counts before any correction: 100 per unit of colour
// and intensity, at most seven digits.
std::string RgbExtText(const Seen& s) {
  const Rgb c = ColourOf(s.light);
  const double light = NonNegative(s.light.intensity);
  auto counts = [light](double v) { return std::lround(std::min(100.0 * v * light, 9999999.0)); };
  return Format("%ld %ld %ld", counts(c.r), counts(c.g), counts(c.b));
}

// In the instrument's absolute unit: a thousandth of the linear intensity.
std::string AbsIntText(const Seen& s) {
  return Format("%E", NonNegative(s.light.intensity) / 1000.0 * s.cal.absIntFactor.value);
}

}  // namespace zeltosim::detail
