#include "device/settings.hpp"

#include <cstdio>
#include <optional>
#include <string>

#include "device/command.hpp"
#include "device/identify.hpp"
#include "frame/registry.hpp"
#include "frame/utils.hpp"

namespace zeltocom {

namespace {

long SettingTimeoutMs(const s_CommPort* port) {
  return static_cast<long>(16 * port->charTimeMs) + 20;
}

// Sends a query whose answer is one integer; an answer that is none counts
// as no answer.
int QueryInteger(s_CommPort* port, const char* command, int* value) {
  t_comresponse response;
  const int result = CMD_SendCommand(port, command, SettingTimeoutMs(port), &response);
  if (result != 1) return result;
  const std::optional<int> parsed = SingleReading<int>(response.data);
  if (!parsed) return 0;
  *value = *parsed;
  return 1;
}

bool AsksAverages(int deviceType) {
  return deviceType == DEVTYPE_LOWLIGHT || deviceType == DEVTYPE_DISPLAY ||
         deviceType == DEVTYPE_SPECTROMETER || deviceType == DEVTYPE_CLR;
}

// Fills `entry` from an integer query: the answer, 1 when the instrument
// gave none in time, unknown when the query could not be sent.
void LoadInteger(s_CommPort* port, const char* command, int* entry) {
  int value = 0;
  const int result = QueryInteger(port, command, &value);
  if (result == 1) *entry = value;
  if (result == 0) *entry = 1;
}

bool IsSpectrometer(const s_CommPort* port) { return port->deviceType == DEVTYPE_SPECTROMETER; }

}  // namespace

bool IsW2Model(const s_CommPort* port) { return Contains(port->hardwareDescriptor.view(), "-W2"); }

int CMD_GetExposure(s_CommPort* port, int* factor) { return QueryInteger(port, "GETFACTOR", factor); }

int CMD_GetNumFibers(s_CommPort* port, int* fibers) { return QueryInteger(port, "GETNFIB", fibers); }

int CMD_GetAverages(s_CommPort* port, int* averages) {
  return QueryInteger(port, "GETAVERAGE", averages);
}

int CMD_GetPWM(s_CommPort* port, int* pwm) { return QueryInteger(port, "GETPWM", pwm); }

int CMD_GetCustomCaptureTime(s_CommPort* port, float* time) {
  t_comresponse response;
  const int result = CMD_SendCommand(port, "GETCUSTOMTIME", SettingTimeoutMs(port), &response);
  if (result != 1) return result;
  float value = 0;
  char unit[32] = "";
  if (std::sscanf(response.data.c_str(), "%f %31s", &value, unit) < 1) return 0;
  // Kept as it stands for "us" and scaled for any other unit word: hosts
  // depend on this asymmetry.
  *time = std::string(unit) == "us" ? value : value / 1000.0f;
  return 1;
}

int CMD_GetAdjustmentSet(s_CommPort* port, int* set) {
  *set = 0;
  t_comresponse response;
  const long timeout = SettingTimeoutMs(port);
  if (!IsSpectrometer(port)) {
    const int result = CMD_SendCommand(port, "GETCALIBRATION", timeout, &response);
    if (result < 0) return -1;
    if (result == 1) {
      *set = ParseInt(response.data);
      return 1;
    }
  }
  const int result = CMD_SendCommand(port, "GETADJUSTMENT", timeout, &response);
  if (result < 0) return -1;
  if (result == 1) *set = ParseInt(response.data);
  return 1;
}

int CMD_GetIntensityMode(s_CommPort* port, eIntensityMode* mode) {
  t_comresponse response;
  int result = CMD_SendCommand(port, "GETINTENSITYMODE",
                               static_cast<long>(15 * port->charTimeMs) + 20, &response);
  if (result < 0) return -1;
  if (result == 0) {
    // Older instruments show the mode only inside their status page.
    const long timeout = static_cast<long>(500 * port->charTimeMs) + 30;
    if (Contains(port->eotFormat.view(), "\x04")) {
      result = CMD_SendCommand(port, "GETSTATUS", timeout, &response);
      if (result != 1) return result;
    } else {
      if (CMD_Write(port, "GETSTATUS") != 1) return -1;
      CMD_Wait(port, &response, timeout, port->eotFormat.view(), false, true, 0);
      if (response.syntaxError) return 0;
    }
  }
  *mode = Contains(strtolower(response.data), "logarithmic") ? INTENSITY_LOGARITHMIC
                                                              : INTENSITY_LINEAR;
  return 1;
}

const char* PwmCommand(int on) { return on != 0 ? "PUTPWM1" : "PUTPWM0"; }

int CMD_PutPWM(s_CommPort* port, int on) {
  t_comresponse response;
  return CMD_SendCommand(port, PwmCommand(on), SettingTimeoutMs(port), &response);
}

int CMD_PutCustomCaptureTime(s_CommPort* port, long value) {
  t_comresponse response;
  const std::string command = StringPrintf("PUTCUSTOMTIME%07ld", value);
  const int result =
      CMD_SendCommand(port, command, static_cast<long>(16 * port->charTimeMs) + 50, &response);
  if (result != 1) return result;
  return Contains(response.data, "OK") ? 1 : 0;
}

void CMD_LoadSettings_Exposure(s_CommPort* port) {
  int& factor = port->fiberSettingsCur->factor;
  if (factor != -1) return;
  CMD_LoadSettings_HardwareType(port);
  if (IsSpectrometer(port)) {
    factor = 1;
  } else {
    LoadInteger(port, "GETFACTOR", &factor);
  }
}

void CMD_LoadSettings_Averages(s_CommPort* port) {
  int& averages = port->fiberSettingsCur->averages;
  if (averages != -1) return;
  CMD_LoadSettings_HardwareType(port);
  if (AsksAverages(port->deviceType)) {
    LoadInteger(port, "GETAVERAGE", &averages);
  } else {
    averages = 1;
  }
}

void CMD_LoadSettings_NumFibers(s_CommPort* port) {
  if (port->numFibers != -1) return;
  CMD_LoadSettings_HardwareType(port);
  if (IsSpectrometer(port)) {
    port->numFibers = 1;
  } else {
    LoadInteger(port, "GETNFIB", &port->numFibers);
  }
}

int CMD_LoadSettings_PWM(s_CommPort* port) {
  int& pwm = port->fiberSettingsCur->pwm;
  if (pwm != -1) return 1;
  CMD_LoadSettings_HardwareType(port);
  if (!IsSpectrometer(port)) return 0;
  int value = 0;
  const int result = CMD_GetPWM(port, &value);
  if (result == 1) pwm = value;
  return result != 0 ? 1 : 0;
}

int CMD_LoadSettings_CustomTime(s_CommPort* port) {
  float& customTime = port->fiberSettingsCur->customTime;
  if (customTime != -1.0f) return 1;
  CMD_LoadSettings_HardwareType(port);
  if (!IsSpectrometer(port)) {
    customTime = 1.0f;
    return 0;
  }
  float value = 0;
  const int result = CMD_GetCustomCaptureTime(port, &value);
  if (result == 1) customTime = value;
  if (result != 0) return 0;
  customTime = 1.0f;
  return 1;
}

int CMD_LoadSettings_AdjustmentSet(s_CommPort* port) {
  if (port->adjustmentSet != -1) return 1;
  CMD_LoadSettings_HardwareType(port);
  int set = 0;
  const int result = CMD_GetAdjustmentSet(port, &set);
  if (result == 1) {
    // An answer outside the instrument's sets would index past the cache.
    if (set < 0 || set >= kAdjustmentSets) return 0;
    port->adjustmentSet = set;
    port->fiberSettingsCur = &port->fiberSettings[static_cast<std::size_t>(set)];
  }
  return result != 0 ? 1 : 0;
}

int CMD_LoadSettings_IntensityMode(s_CommPort* port) {
  int& intensityMode = port->fiberSettingsCur->intensityMode;
  if (intensityMode != -1) return 1;
  CMD_LoadSettings_HardwareType(port);
  eIntensityMode mode = INTENSITY_LINEAR;
  const int result = CMD_GetIntensityMode(port, &mode);
  if (result != 1) return result;
  intensityMode = mode == INTENSITY_LOGARITHMIC ? 1 : 0;
  return 1;
}

int CMD_WriteSettings_PWM(s_CommPort* port, int on) {
  if (port->fiberSettingsCur->pwm == on) return 1;
  CMD_LoadSettings_HardwareType(port);
  if (!IsSpectrometer(port)) return 0;
  if (!IsW2Model(port)) return 1;
  if (CMD_PutPWM(port, on) != 1) return 0;
  port->fiberSettingsCur->pwm = on;
  return 1;
}

int CMD_WriteSettings_CustomTime(s_CommPort* port, float time) {
  if (time < 0) return 0;
  if (time == port->fiberSettingsCur->customTime) return 1;
  CMD_LoadSettings_HardwareType(port);
  if (!IsSpectrometer(port)) return 0;
  const long value = IsW2Model(port) ? static_cast<long>(time * 1000) : static_cast<long>(time);
  if (CMD_PutCustomCaptureTime(port, value) != 1) return 0;
  port->fiberSettingsCur->customTime = time;
  return 1;
}

}  // namespace zeltocom
