#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "frame/clock.hpp"

namespace zeltocom {

struct s_CommPort;

// Model families; the rest of the library branches on them.
enum eDeviceType {
  DEVTYPE_UNKNOWN = 0,
  DEVTYPE_FUNCTIONAL = 1,
  DEVTYPE_ICT = 2,
  DEVTYPE_LOWLIGHT = 3,
  DEVTYPE_IR = 4,
  DEVTYPE_NODE = 5,
  DEVTYPE_DISPLAY = 6,
  DEVTYPE_SPECTROMETER = 7,
  DEVTYPE_CLR = 8,
  DEVTYPE_CLRSTD = 9,
};

// How long the model and firmware queries wait: 10 characters' time and
// 20 ms.
TimeoutMs IdentifyTimeoutMs(double charTimeMs);

// Identification exchanges: 1 answered in time, 0 late or refused, -1 not
// sent.
int CMD_GetHardwareDescriptor(s_CommPort* port, std::string& text);
int CMD_GetFirmwareVersion(s_CommPort* port, std::string& text);
void CMD_GetFirmwareVersion(s_CommPort* port);
void CMD_GetID(s_CommPort* port);

// The model family of a "GETHW" answer.
int CMD_GetDeviceType(std::string_view descriptor);
// The word hosts compare against for a device type.
const char* DeviceTypeWord(int deviceType);

// Sets the hardware descriptor and the device type derived from it, always
// together.
void SetHardwareDescriptor(s_CommPort* port, std::string_view text, std::size_t maxLength = 26);
// Asks "GETHW" once per port and classifies the answer.
int CMD_LoadSettings_HardwareType(s_CommPort* port);
int CMD_LoadSettings_FirmwareVersion(s_CommPort* port);

// Firmware that uses 0x04 markers but sends the 0x04 of a "BUSCE" answer
// apart from the answer.
bool HasOldBusFirmware(const s_CommPort* port);

// How long a capture of this kind may take, in ms.
TimeoutMs CMD_GetCaptureTimeout(int deviceType, int pwm, int range, int pwmFrames, int exposure,
                                int averages);

}  // namespace zeltocom
