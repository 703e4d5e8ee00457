// Port queries, library version and port baud rate.
#include <cstdio>
#include <string>

#include "api/common.hpp"
#include "device/identify.hpp"
#include "device/lines.hpp"
#include "frame/clock.hpp"
#include "frame/errors.hpp"
#include "frame/registry.hpp"
#include "frame/utils.hpp"
#include "zeltocom.h"

using namespace zeltocom;

namespace {

constexpr char kVersionText[] = "v" ZELTOCOM_VERSION_STRING;
// Hosts are promised that 7 bytes hold the version text.
static_assert(sizeof kVersionText <= 7, "the version text outgrew its documented buffer");

// The open ports to list into `buffer`, after the checks shared by the
// listings; empty, with the error text set, when there is nothing to list or
// nowhere to list it.
std::vector<PortRef> OpenPortsFor(const void* buffer) {
  if (!DetectionCheck()) return {};
  std::vector<PortRef> ports = PortsList_All(&OpenedPorts);
  if (ports.empty()) {
    SetError(nullptr, "No ports have been opened yet");
  } else if (buffer == nullptr) {
    SetError(nullptr, kNoBuffer);
    ports.clear();
  }
  return ports;
}

int ReportNotInUse() {
  SetError(nullptr, "The device path is not in use");
  return -1;
}

// Copies a text of an open port into the host's buffer: 1, or -1 without one.
int CopyPortText(char* buffer, std::string_view text) {
  if (buffer == nullptr) {
    SetError(nullptr, kNoBuffer);
    return -1;
  }
  CopyOut(buffer, text);
  return 1;
}

}  // namespace

extern "C" {

void ZeltoCom_GetLibraryVersion(char* buffer) {
  Guarded(0, [&] {
    CopyOut(buffer, kVersionText);
    return 0;
  });
}

int ZeltoCom_EnumPorts(void) {
  return Guarded(0, [] {
    if (!FirstDetectionInProcess.exchange(true)) {
      // Other callers wait for the flag, so it is lowered whatever happens.
      const OnScopeExit lower([] { FirstDetectionInProcess = false; });
      SetDetectedPorts(EnumSerialPorts());
      FirstDetectionDone = true;
    } else {
      while (FirstDetectionInProcess) {
        delayms(1);
      }
    }
    return static_cast<int>(DetectedPorts().size());
  });
}

int ZeltoCom_GetOpenedPorts(char** paths) {
  return Guarded(0, [&] {
    const std::vector<PortRef> ports = OpenPortsFor(paths);
    if (ports.empty()) return 0;
    int n = 0;
    for (const PortRef& port : ports) CopyOut(paths[n++], port->devicePath.view());
    return n;
  });
}

int ZeltoCom_GetOpenedPortsS(char* buffer, int separator) {
  return Guarded(0, [&] {
    const std::vector<PortRef> ports = OpenPortsFor(buffer);
    if (ports.empty()) return 0;
    std::string text;
    for (const PortRef& port : ports) {
      char piece[255];
      if (text.empty()) {
        std::snprintf(piece, sizeof piece, "%s", port->devicePath.c_str());
      } else {
        std::snprintf(piece, sizeof piece, "%c%s", static_cast<char>(separator),
                      port->devicePath.c_str());
      }
      text += piece;
    }
    CopyOut(buffer, text);
    return static_cast<int>(ports.size());
  });
}

int ZeltoCom_IsPortAvailable(const char* devicePath) {
  return Guarded(0, [&] {
    if (!DetectionCheck()) return 0;
    if (isDevicePathAvailable(std::string(Arg(devicePath)))) return 1;
    SetError(nullptr, "The port is not available");
    return 0;
  });
}

int ZeltoCom_GetPortBySN(char* devicePath, const char* serialNumber) {
  return Guarded(-1, [&] {
    const PortRef port = PortsList_GetBySerialNumber(&OpenedPorts, Arg(serialNumber));
    return port ? CopyPortText(devicePath, port->devicePath.view()) : ReportNotInUse();
  });
}

int ZeltoCom_GetSNByPort(char* serialNumber, const char* devicePath) {
  return Guarded(-1, [&] {
    const PortRef port = PortsList_GetByDevPath(Arg(devicePath));
    return port ? CopyPortText(serialNumber, port->serialNumber.view()) : ReportNotInUse();
  });
}

char* ZeltoCom_GetPortByID(const char* deviceID, char* devicePath) {
  return Guarded<char*>(devicePath, [&] {
    const std::optional<s_IDPort> row = IDtoPortList_GetPortByDeviceID(Arg(deviceID));
    if (!row) {
      SetError(nullptr, "ID not found");
      CopyOut(devicePath, "");
      return devicePath;
    }
    if (devicePath == nullptr) SetError(nullptr, kNoBuffer);
    CopyOut(devicePath, row->devicePath.view());
    return devicePath;
  });
}

int ZeltoCom_GetBaudrate(const char* devicePath) {
  return Guarded(0, [&] {
    if (!PortsDetected()) return 0;
    const PortRef port = PortsList_GetByDevPath(Arg(devicePath));
    if (!port) {
      SetError(nullptr, "The port is not in use");
      return 0;
    }
    return port->baudrate.load();
  });
}

int ZeltoCom_GetDeviceType(const char* devicePath, char* category) {
  return Guarded(-1, [&](Call& call) {
    if (!PortsDetected()) return 0;
    const std::optional<HeldPort> port =
        call.Hold(PortsList_GetByDevPath(Arg(devicePath)), "The port is not in use");
    if (!port) return 0;
    if (category == nullptr) {
      SetError(nullptr, kNoBuffer);
      return -1;
    }
    // A daisy-chained instrument holding the line is the one reported.
    const int loaded = CMD_LoadSettings_HardwareType(port->owner());
    if (loaded != 1) return loaded;
    CopyOut(category, DeviceTypeWord(port->owner()->deviceType));
    return 1;
  });
}

}  // extern "C"
