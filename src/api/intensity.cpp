// Conversions between an instrument's intensity scales, for hosts that
// compare readings with limits in linear units.
#include <optional>

#include "api/common.hpp"
#include "device/intensity_scale.hpp"
#include "frame/errors.hpp"
#include "frame/utils.hpp"
#include "zeltocom.h"

namespace zeltocom {
namespace {

constexpr int kMaxCaptureRange = 6;  // as captures take

// Runs `body` on the instrument that holds the line of the open port at
// `devPath`, once the arguments are sound and its scale's facts are loaded.
template <typename Body>
int WithScaleFacts(const char* devPath, const int* result, int captureRange, Body body) {
  return Guarded(-1, [&](Call& call) {
    const std::optional<HeldPort> port =
        call.Hold(PortsList_GetByDevPath(Arg(devPath)), "The port is not in use");
    if (!port) return -1;
    s_CommPort* device = port->owner();
    if (result == nullptr) {
      SetError(device, kNoBuffer);
      return -1;
    }
    if (captureRange < 0 || captureRange > kMaxCaptureRange) {
      SetError(device,
               StringPrintf("Capture range should be a value between 0 and %d", kMaxCaptureRange));
      return -1;
    }
    if (LoadIntensityScaleFacts(device) != 1) {
      SetError(device, "Unable to read the intensity scale of the instrument");
      return 0;
    }
    return body(device);
  });
}

int Converted(const char* devPath, int value, int isPWM, int captureRange, int* result,
              int (*convert)(s_CommPort*, int, int, int)) {
  return WithScaleFacts(devPath, result, captureRange, [&](s_CommPort* device) {
    *result = convert(device, value, isPWM, captureRange);
    return 1;
  });
}

}  // namespace
}  // namespace zeltocom

using namespace zeltocom;

extern "C" {

int ZeltoCom_IntensityToLinear(const char* devPath, int value, int isPWM, int captureRange,
                               int* linear) {
  return Converted(devPath, value, isPWM, captureRange, linear, AnalyserIntensityLogToLin);
}

int ZeltoCom_IntensityToLog(const char* devPath, int value, int isPWM, int captureRange,
                            int* logarithmic) {
  return Converted(devPath, value, isPWM, captureRange, logarithmic, AnalyserIntensityLinToLog);
}

int ZeltoCom_GetIntensityScale(const char* devPath, int* logarithmic) {
  return WithScaleFacts(devPath, logarithmic, 0, [&](s_CommPort* device) {
    *logarithmic = device->settings.current->intensityMode == IntensityMode::Logarithmic ? 1 : 0;
    return 1;
  });
}

}  // extern "C"
