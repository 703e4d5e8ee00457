#include "device/intensity_scale.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string_view>

#include "device/identify.hpp"
#include "device/settings.hpp"
#include "frame/registry.hpp"
#include "frame/utils.hpp"

namespace zeltocom {

namespace {

// Gain of capture ranges 1 to 5; 1 for anything else.
double RangeGain(int captureRange) {
  static constexpr double kGains[] = {1, 2, 10, 25, 50};
  return captureRange >= 1 && captureRange <= 5 ? kGains[captureRange - 1] : 1.0;
}

// Toward zero, held to int's range: a reading far beyond it is as large as
// an int can say, not a value that wrapped.
int Truncated(double value) {
  if (std::isnan(value)) return 0;
  constexpr double kMin = std::numeric_limits<int>::min();
  constexpr double kMax = std::numeric_limits<int>::max();
  return static_cast<int>(std::clamp(std::trunc(value), kMin, kMax));
}

// Which formula an instrument's intensities follow, in the order the
// firmware generations are told apart.
enum class Scale { Modern, Zelto23, Older, PwmBeforeEot, Standard };

Scale ScaleOf(const s_CommPort* port, int isPWM) {
  const std::string_view id = port->deviceIdText.view();
  const std::string_view fw = port->firmwareText.view();
  const int n = ParseInt(fw);
  if (id == "05I" || id == "05F" || n >= 200) return Scale::Modern;
  const std::string_view model = port->hardwareDescriptor.view();
  if (Contains(model, "Zelto 2-") || Contains(model, "Zelto 3-")) return Scale::Zelto23;
  if (port->deviceType == DEVTYPE_NODE) return Scale::Standard;
  const bool flashFirmware = fw.starts_with("F");
  const bool older =
      (!flashFirmware && !(n >= 116 && fw.starts_with("I"))) || (flashFirmware && n < 113);
  if (older && !fw.starts_with("BF") && !fw.starts_with("BI")) return Scale::Older;
  if (n < 125 && !Contains(port->eotFormat.view(), "\x04") && isPWM != 0) {
    return Scale::PwmBeforeEot;
  }
  return Scale::Standard;
}

}  // namespace

int LoadIntensityScaleFacts(s_CommPort* port) {
  int result = CMD_LoadSettings_IntensityMode(port);
  if (result != 1) return result;
  result = CMD_LoadSettings_FirmwareVersion(port);
  if (result != 1) return result;
  if (port->deviceIdText.empty()) CMD_GetID(port);
  return 1;
}

int AnalyserIntensityLogToLin(s_CommPort* port, int value, int isPWM, int captureRange) {
  const int loaded = LoadIntensityScaleFacts(port);
  if (loaded != 1) return loaded;
  if (port->settings.current->intensityMode == IntensityMode::Linear) return value;

  const double v = value;
  const double x1 = (v + 285) / 25167;
  const double x2 = (v + 5) / 26283;
  switch (ScaleOf(port, isPWM)) {
    case Scale::Modern: return Truncated((std::exp(v / 20814) - 1) * 1000);
    case Scale::Zelto23: return Truncated((std::exp((v + 1285) / 25167) - 1) * 1600);
    case Scale::Older:
      if (captureRange == 0) {
        return Truncated((std::exp((v + 331572) / 24000) / 1000000 - 1) * 50000 / 25);
      }
      return Truncated((std::exp(v / 28000) - 1) * 3305);
    case Scale::PwmBeforeEot:
      if (captureRange >= 1 && captureRange <= 5) {
        return Truncated((std::exp(x1) - 1) * 1600 * 8 * RangeGain(captureRange) / 25);
      }
      return Truncated((std::exp(x2) - 1) * 100000 * 7 * 32 / 25);
    case Scale::Standard: break;
  }
  if (captureRange != 0) return Truncated((std::exp(x1) - 1) * 1600);
  return Truncated((std::exp(x2) - 1) * 100000 / 25);
}

int AnalyserIntensityLinToLog(s_CommPort* port, int value, int isPWM, int captureRange) {
  const double y = value;
  switch (ScaleOf(port, isPWM)) {
    case Scale::Modern: return Truncated(std::log10(y / 1000 + 1) * 20814);
    case Scale::Zelto23: return Truncated(std::log10(y / 1600 + 1) * 25167 - 1285);
    case Scale::Older:
      if (captureRange == 0) {
        return Truncated(std::log10((25 * y / 50000 + 1) * 1000000) * 24000 - 331572);
      }
      return Truncated(std::log10(y / 3305 + 1) * 28000);
    case Scale::PwmBeforeEot:
      if (captureRange >= 1 && captureRange <= 5) {
        return Truncated(std::log10(25 * y / (8 * RangeGain(captureRange) * 1600) + 1) * 25167 -
                         285);
      }
      return Truncated(std::log10(25 * y / 22400000 + 1) * 26283 - 5);
    case Scale::Standard: break;
  }
  if (captureRange != 0) return Truncated(std::log10(y / 1600 + 1) * 25167 - 285);
  return Truncated(std::log10(25 * y / 100000 + 1) * 26283 - 5);
}

}  // namespace zeltocom
