#pragma once

namespace zeltocom {

struct s_CommPort;

// Loads what the conversions below depend on: the intensity mode (with the
// model), the firmware version and, once, the identification code. 1, or the
// failing loader's result.
int LoadIntensityScaleFacts(s_CommPort* port);

// The instrument's logarithmic intensity as a linear one. `captureRange` 0
// is the automatic range, 1 to 5 index the capture gains. In linear mode the
// value comes back unchanged; when the intensity mode or the firmware version
// cannot be loaded, the loader's result comes back instead of a value. The
// caller holds the port's line.
int AnalyserIntensityLogToLin(s_CommPort* port, int value, int isPWM, int captureRange);

// A linear intensity in the instrument's logarithmic scale, whatever the
// mode. Not the exact inverse of the above (decimal logarithm against natural
// exponential): thresholds computed through both depend on that pairing.
int AnalyserIntensityLinToLog(s_CommPort* port, int value, int isPWM, int captureRange);

}  // namespace zeltocom
