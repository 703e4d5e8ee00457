#pragma once

#include "api/common.hpp"

namespace zeltocom {

// The range (0 to 6) and, with `pwm` 1, the frames (0 to 15) of an LED
// capture; false with the error set on `blamed` otherwise.
bool LedCaptureArgumentsAccepted(s_CommPort* blamed, int pwm, int range, int pwmFrames);

// The LED capture of the instrument that holds the held port's line, with the
// port's time-out rule. 1, 0 or -1 as ZeltoCom_Capture.
int CaptureLed(const HeldPort& port, int pwm, int range, int pwmFrames);

enum class Acquisition { Spectrum, Dark };

// The spectrometer capture or dark reference of the instrument that holds
// the held port's line, with the port's time-out rule. 1, 0 or -1 as
// ZeltoCom_SpectrometerCapture.
int AcquireSpectrometer(const HeldPort& port, Acquisition kind, int pwm, int manualExposure,
                        float exposure);

}  // namespace zeltocom
