#pragma once

#include "frame/registry.hpp"

namespace zeltocom {

// How long a settings query waits for its one number: 16 characters' time
// and 20 ms.
TimeoutMs SettingTimeoutMs(double charTimeMs);

// Queries: 1 value stored, 0 late or refused (nothing stored), -1 not sent.
int CMD_GetAdjustmentSet(s_CommPort* port, int* set);
int CMD_GetIntensityMode(s_CommPort* port, IntensityMode* mode);

// "PUTPWM1" or "PUTPWM0".
const char* PwmCommand(int on);

// Loaders fill the cache entry once and return at once while it is known.
// A send failure leaves the entry unknown so that the next call asks again;
// a late answer sets a default that still sizes a time-out.
void CMD_LoadSettings_Exposure(s_CommPort* port);
void CMD_LoadSettings_Averages(s_CommPort* port);
void CMD_LoadSettings_NumFibers(s_CommPort* port);
int CMD_LoadSettings_AdjustmentSet(s_CommPort* port);
int CMD_LoadSettings_IntensityMode(s_CommPort* port);

// "-W2" spectrometers take microseconds and have a PWM mode.
bool IsW2Model(const s_CommPort* port);

}  // namespace zeltocom
