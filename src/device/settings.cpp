#include "device/settings.hpp"

#include <optional>
#include <string>

#include "device/exchange.hpp"
#include "device/identify.hpp"
#include "frame/registry.hpp"
#include "frame/utils.hpp"

namespace zeltocom {

TimeoutMs SettingTimeoutMs(double charTimeMs) {
  return static_cast<TimeoutMs>(16 * charTimeMs) + 20;
}

namespace {

// Sends a query whose answer is one integer; an answer that is none counts
// as no answer.
int QueryInteger(s_CommPort* port, const char* command, int* value) {
  std::string answer;
  const int result = CMD_SendCommand(port, command, SettingTimeoutMs(port->charTimeMs), &answer);
  if (result != 1) return result;
  const std::optional<int> parsed = SingleReading<int>(answer);
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

int CMD_GetAdjustmentSet(s_CommPort* port, int* set) {
  *set = 0;
  std::string answer;
  const TimeoutMs timeout = SettingTimeoutMs(port->charTimeMs);
  if (!IsSpectrometer(port)) {
    const int result = CMD_SendCommand(port, "GETCALIBRATION", timeout, &answer);
    if (result < 0) return -1;
    if (result == 1) {
      *set = ParseInt(answer);
      return 1;
    }
  }
  const int result = CMD_SendCommand(port, "GETADJUSTMENT", timeout, &answer);
  if (result < 0) return -1;
  if (result == 1) *set = ParseInt(answer);
  return 1;
}

int CMD_GetIntensityMode(s_CommPort* port, IntensityMode* mode) {
  std::string answer;
  int result = CMD_SendCommand(port, "GETINTENSITYMODE",
                               static_cast<TimeoutMs>(15 * port->charTimeMs) + 20, &answer);
  if (result < 0) return -1;
  if (result == 0) {
    // Older instruments show the mode only inside their status page.
    const TimeoutMs timeout = static_cast<TimeoutMs>(500 * port->charTimeMs) + 30;
    if (Contains(port->eotFormat.view(), "\x04")) {
      result = CMD_SendCommand(port, "GETSTATUS", timeout, &answer);
      if (result != 1) return result;
    } else {
      const Reply page = Exchange(port, "GETSTATUS", End::Quiet(port->eotFormat.view()), timeout);
      if (page.outcome == Outcome::NotSent) return -1;
      if (page.syntaxError) return 0;
      answer = page.text;
    }
  }
  *mode = Contains(strtolower(answer), "logarithmic") ? IntensityMode::Logarithmic
                                                      : IntensityMode::Linear;
  return 1;
}

const char* PwmCommand(int on) { return on != 0 ? "PUTPWM1" : "PUTPWM0"; }

void CMD_LoadSettings_Exposure(s_CommPort* port) {
  int& factor = port->settings.current->factor;
  if (factor != -1) return;
  CMD_LoadSettings_HardwareType(port);
  if (IsSpectrometer(port)) {
    factor = 1;
  } else {
    LoadInteger(port, "GETFACTOR", &factor);
  }
}

void CMD_LoadSettings_Averages(s_CommPort* port) {
  int& averages = port->settings.current->averages;
  if (averages != -1) return;
  CMD_LoadSettings_HardwareType(port);
  if (AsksAverages(port->deviceType)) {
    LoadInteger(port, "GETAVERAGE", &averages);
  } else {
    averages = 1;
  }
}

void CMD_LoadSettings_NumFibers(s_CommPort* port) {
  if (port->settings.numFibers != -1) return;
  CMD_LoadSettings_HardwareType(port);
  if (IsSpectrometer(port)) {
    port->settings.numFibers = 1;
  } else {
    LoadInteger(port, "GETNFIB", &port->settings.numFibers);
  }
}

int CMD_LoadSettings_AdjustmentSet(s_CommPort* port) {
  if (port->settings.adjustmentSet != -1) return 1;
  CMD_LoadSettings_HardwareType(port);
  int set = 0;
  const int result = CMD_GetAdjustmentSet(port, &set);
  if (result == 1) {
    // An answer outside the instrument's sets would index past the cache.
    if (set < 0 || set >= kAdjustmentSets) return 0;
    port->settings.UseAdjustmentSet(set);
  }
  return result != 0 ? 1 : 0;
}

int CMD_LoadSettings_IntensityMode(s_CommPort* port) {
  IntensityMode& intensityMode = port->settings.current->intensityMode;
  if (intensityMode != IntensityMode::Unknown) return 1;
  CMD_LoadSettings_HardwareType(port);
  IntensityMode mode = IntensityMode::Linear;
  const int result = CMD_GetIntensityMode(port, &mode);
  if (result != 1) return result;
  intensityMode = mode;
  return 1;
}

}  // namespace zeltocom
