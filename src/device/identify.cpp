#include "device/identify.hpp"

#include <cmath>
#include <limits>

#include "device/exchange.hpp"
#include "frame/registry.hpp"
#include "frame/utils.hpp"

namespace zeltocom {

TimeoutMs IdentifyTimeoutMs(double charTimeMs) {
  return static_cast<TimeoutMs>(10 * charTimeMs) + 20;
}

namespace {

// One model code: "Zelto <n>-<suffix>", the number zero-padded to two
// digits or written plainly.
struct ModelCode {
  bool padded;
  const char* suffix;
  int type;
};

constexpr ModelCode kModelCodes[] = {
    {false, "P", DEVTYPE_ICT},          {true, "P", DEVTYPE_ICT},
    {false, "T", DEVTYPE_FUNCTIONAL},   {true, "T", DEVTYPE_FUNCTIONAL},
    {false, "PX", DEVTYPE_IR},          {true, "PX", DEVTYPE_IR},
    {true, "M", DEVTYPE_LOWLIGHT},      {true, "N", DEVTYPE_FUNCTIONAL},
    {true, "V", DEVTYPE_DISPLAY},       {true, "PN", DEVTYPE_ICT},
    {true, "TN", DEVTYPE_FUNCTIONAL},   {true, "W", DEVTYPE_SPECTROMETER},
    {true, "W2", DEVTYPE_SPECTROMETER}, {true, "CLR", DEVTYPE_CLR},
};

}  // namespace

int CMD_GetHardwareDescriptor(s_CommPort* port, std::string& text) {
  std::string answer;
  const int result = CMD_SendCommand(port, "GETHW", IdentifyTimeoutMs(port->charTimeMs), &answer);
  if (result == 1) text = answer;
  return result;
}

int CMD_GetFirmwareVersion(s_CommPort* port, std::string& text) {
  std::string answer;
  const int result =
      CMD_SendCommand(port, "GETVERSION", IdentifyTimeoutMs(port->charTimeMs), &answer);
  if (result == 1) text = answer;
  return result;
}

void CMD_GetFirmwareVersion(s_CommPort* port) {
  std::string text;
  if (CMD_GetFirmwareVersion(port, text) == 1) port->SetFirmware(text);
}

void CMD_GetID(s_CommPort* port) {
  std::string answer;
  const TimeoutMs timeout = 2 * static_cast<TimeoutMs>(10 * port->charTimeMs) + 20;
  if (CMD_SendCommand(port, "ID", timeout, &answer) == 1) port->deviceIdText.assign(answer);
}

int CMD_GetDeviceType(std::string_view descriptor) {
  if (descriptor.empty()) return DEVTYPE_UNKNOWN;
  if (Contains(descriptor, "Zelto Node")) return DEVTYPE_NODE;
  const std::string upper = strtoupper(descriptor);
  if (Contains(upper, "CLR_STD") || Contains(upper, "STD_CLR")) return DEVTYPE_CLRSTD;
  // Whole-text, case-sensitive comparisons: trailing characters make a
  // descriptor unknown.
  for (int n = 1; n <= 20; ++n) {
    for (const ModelCode& code : kModelCodes) {
      const std::string candidate =
          StringPrintf(code.padded ? "Zelto %02d-%s" : "Zelto %d-%s", n, code.suffix);
      if (candidate == descriptor) return code.type;
    }
  }
  return DEVTYPE_UNKNOWN;
}

const char* DeviceTypeWord(int deviceType) {
  // "UNKONWN" is the spelling hosts compare against.
  static constexpr const char* kWords[] = {"UNKONWN", "FUNCTIONAL", "ICT",     "LOWLIGHT",
                                           "IR",      "ATLAS",      "DISPLAY", "SPECTROMETER",
                                           "CLR",     "CLRSTD"};
  if (deviceType < 1 || deviceType > 9) return kWords[0];
  return kWords[deviceType];
}

void SetHardwareDescriptor(s_CommPort* port, std::string_view text, std::size_t maxLength) {
  port->hardwareDescriptor.assign(text, maxLength);
  port->deviceType = CMD_GetDeviceType(port->hardwareDescriptor.view());
}

int CMD_LoadSettings_HardwareType(s_CommPort* port) {
  if (!port->hardwareDescriptor.empty()) return 1;
  std::string text;
  const int result = CMD_GetHardwareDescriptor(port, text);
  if (result != 1) {
    port->deviceType = DEVTYPE_UNKNOWN;
    return result;
  }
  SetHardwareDescriptor(port, text);
  return 1;
}

int CMD_LoadSettings_FirmwareVersion(s_CommPort* port) {
  if (!port->firmwareText.empty()) return 1;
  std::string text;
  const int result = CMD_GetFirmwareVersion(port, text);
  if (result != 1) return result;
  port->SetFirmware(text);
  return 1;
}

bool HasOldBusFirmware(const s_CommPort* port) {
  const std::string_view text = port->firmwareText.view();
  if (text.empty()) return false;
  return (text[0] == 'F' && port->firmwareNumber < 212) ||
         (text[0] == 'S' && port->firmwareNumber < 201);
}

TimeoutMs CMD_GetCaptureTimeout(int deviceType, int pwm, int range, int pwmFrames, int exposure,
                                int averages) {
  const bool slowFamily = deviceType == DEVTYPE_LOWLIGHT || deviceType == DEVTYPE_CLR;
  double base = 1250;
  if (deviceType == DEVTYPE_DISPLAY) base = 6500;
  if (slowFamily) base = 2200;
  if (deviceType == DEVTYPE_NODE) base = 2000;

  if (range == 0) base /= 1.2;
  double t = base;
  if (pwm != 0) t += (pwmFrames != 0 ? pwmFrames : 7) * base;
  if (range > 0) {
    t *= std::pow(2.4, 2 - range);
    if (range > 3) t *= 1.2;
  }
  t *= exposure;
  t = (averages * t + 17 + 16 + 25) * 1.2;

  if (t < 150) return 150;
  if (slowFamily && t < 300) return 300;
  // Far beyond any capture, and room left for the margins callers add.
  constexpr TimeoutMs kLongest = std::numeric_limits<TimeoutMs>::max() / 2;
  if (t >= static_cast<double>(kLongest)) return kLongest;
  return static_cast<TimeoutMs>(std::ceil(t));
}

}  // namespace zeltocom
