#pragma once

namespace zeltocom {

struct s_CommPort;

// The scale an instrument reports intensities in.
enum eIntensityMode { INTENSITY_LOGARITHMIC = 0, INTENSITY_LINEAR = 1 };

// Queries: 1 value stored, 0 late or refused (nothing stored), -1 not sent.
int CMD_GetExposure(s_CommPort* port, int* factor);
int CMD_GetNumFibers(s_CommPort* port, int* fibers);
int CMD_GetAverages(s_CommPort* port, int* averages);
int CMD_GetPWM(s_CommPort* port, int* pwm);
int CMD_GetCustomCaptureTime(s_CommPort* port, float* time);
int CMD_GetAdjustmentSet(s_CommPort* port, int* set);
int CMD_GetIntensityMode(s_CommPort* port, eIntensityMode* mode);

// "PUTPWM1" or "PUTPWM0".
const char* PwmCommand(int on);
int CMD_PutPWM(s_CommPort* port, int on);
int CMD_PutCustomCaptureTime(s_CommPort* port, long value);

// Loaders fill the cache entry once and return at once while it is known.
// A send failure leaves the entry unknown so that the next call asks again;
// a late answer sets a default that still sizes a time-out.
void CMD_LoadSettings_Exposure(s_CommPort* port);
void CMD_LoadSettings_Averages(s_CommPort* port);
void CMD_LoadSettings_NumFibers(s_CommPort* port);
int CMD_LoadSettings_PWM(s_CommPort* port);
// Returns 1 only when the instrument did not answer; callers ignore it.
int CMD_LoadSettings_CustomTime(s_CommPort* port);
int CMD_LoadSettings_AdjustmentSet(s_CommPort* port);
int CMD_LoadSettings_IntensityMode(s_CommPort* port);

// Writers send only what differs from the cache.
int CMD_WriteSettings_PWM(s_CommPort* port, int on);
int CMD_WriteSettings_CustomTime(s_CommPort* port, float time);

// "-W2" spectrometers take microseconds and have a PWM mode.
bool IsW2Model(const s_CommPort* port);

}  // namespace zeltocom
