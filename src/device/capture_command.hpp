#pragma once

#include <string>
#include <string_view>

namespace zeltocom {

// The capture command of an LED analyser: `prefix` ("C", or "BUSC" for a
// whole daisy chain) with the range and the PWM frames, e.g. "C3PWM07".
std::string BuildCaptureCommand(std::string_view prefix, int pwm, int range, int pwmFrames);

}  // namespace zeltocom
