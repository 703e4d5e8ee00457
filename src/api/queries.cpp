// Port queries, library version and port baud rate.
#include <cstdio>
#include <string>

#include "api/common.hpp"
#include "device/identify.hpp"
#include "frame/clock.hpp"
#include "frame/errors.hpp"
#include "frame/registry.hpp"
#include "serial/enumerate.hpp"
#include "zeltocom.h"

using namespace zeltocom;

namespace zeltocom {

bool DetectionCheck() {
  if ((!FirstDetectionDone && ZeltoCom_EnumPorts() == 0) || DetectedPorts().empty()) {
    SetError(nullptr, "No ports detected");
    return false;
  }
  return true;
}

s_CommPort* DetectedOpenPort(std::string_view devicePath) {
  if (!FirstDetectionDone) {
    SetError(nullptr, "Detect ports first");
    return nullptr;
  }
  if (DetectedPorts().empty()) {
    SetError(nullptr, "No ports detected");
    return nullptr;
  }
  s_CommPort* port = PortsList_GetByDevPath(devicePath);
  if (port == nullptr) SetError(nullptr, "The port is not in use");
  return port;
}

}  // namespace zeltocom

namespace {

// The checks shared by the open-port listings.
bool AnyPortOpen() {
  if (!DetectionCheck()) return false;
  if (OpenedPorts.count == 0) {
    SetError(nullptr, "No ports have been opened yet");
    return false;
  }
  return true;
}

}  // namespace

extern "C" {

void ZeltoCom_GetLibraryVersion(char* buffer) { CopyOut(buffer, "v3.0.0"); }

int ZeltoCom_EnumPorts(void) {
  if (!FirstDetectionInProcess.exchange(true)) {
    SetDetectedPorts(EnumSerialPorts());
    FirstDetectionInProcess = false;
    FirstDetectionDone = true;
  } else {
    while (FirstDetectionInProcess) {
      delayms(1);
      DoEvents();
    }
  }
  return static_cast<int>(DetectedPorts().size());
}

int ZeltoCom_GetOpenedPorts(char** paths) {
  if (!AnyPortOpen() || paths == nullptr) return 0;
  int n = 0;
  for (const s_CommPort* port : PortsList_All(&OpenedPorts)) CopyOut(paths[n++], port->devicePath.view());
  return n;
}

int ZeltoCom_GetOpenedPortsS(char* buffer, int separator) {
  if (!AnyPortOpen() || buffer == nullptr) return 0;
  std::string text;
  int n = 0;
  for (const s_CommPort* port : PortsList_All(&OpenedPorts)) {
    char piece[255];
    if (n == 0) {
      std::snprintf(piece, sizeof piece, "%s", port->devicePath.c_str());
    } else {
      std::snprintf(piece, sizeof piece, "%c%s", static_cast<char>(separator),
                    port->devicePath.c_str());
    }
    text += piece;
    ++n;
  }
  CopyOut(buffer, text);
  return n;
}

int ZeltoCom_IsPortAvailable(const char* devicePath) {
  if (!DetectionCheck()) return 0;
  if (isDevicePathAvailable(std::string(Arg(devicePath)))) return 1;
  SetError(nullptr, "The port is not available");
  return 0;
}

int ZeltoCom_GetPortBySN(char* devicePath, const char* serialNumber) {
  const s_CommPort* port = PortsList_GetBySerialNumber(&OpenedPorts, Arg(serialNumber));
  if (port == nullptr) {
    SetError(nullptr, "The device path is not in use");
    return -1;
  }
  CopyOut(devicePath, port->devicePath.view());
  return 1;
}

int ZeltoCom_GetSNByPort(char* serialNumber, const char* devicePath) {
  const s_CommPort* port = PortsList_GetByDevPath(Arg(devicePath));
  if (port == nullptr) {
    SetError(nullptr, "The device path is not in use");
    return -1;
  }
  CopyOut(serialNumber, port->serialNumber.view());
  return 1;
}

char* ZeltoCom_GetPortByID(const char* deviceID, char* devicePath) {
  const s_IDPort* row = IDtoPortList_GetPortByDeviceID(lstIDtoPort, Arg(deviceID));
  if (row == nullptr) {
    SetError(nullptr, "ID not found");
    CopyOut(devicePath, "");
    return devicePath;
  }
  CopyOut(devicePath, row->devicePath.view());
  return devicePath;
}

int ZeltoCom_GetBaudrate(const char* devicePath) {
  const s_CommPort* port = DetectedOpenPort(Arg(devicePath));
  return port != nullptr ? port->baudrate : 0;
}

int ZeltoCom_GetDeviceType(const char* devicePath, char* category) {
  s_CommPort* port = DetectedOpenPort(Arg(devicePath));
  if (port == nullptr) return 0;
  // A daisy-chained instrument holding the line is the one reported.
  const int loaded = CMD_LoadSettings_HardwareType(port->busOwner);
  if (loaded != 1) return loaded;
  CopyOut(category, DeviceTypeWord(port->busOwner->deviceType));
  return 1;
}

}  // extern "C"
