// Opening and closing ports.
#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "api/common.hpp"
#include "device/handshake.hpp"
#include "device/lines.hpp"
#include "frame/errors.hpp"
#include "frame/registry.hpp"
#include "frame/utils.hpp"
#include "zeltocom.h"

using namespace zeltocom;

namespace {

// Registers the probed line as an open port; the line is the registry's then.
bool Register(ProbedLine& probed, const std::string& path, const Identity& identity, int baud) {
  if (!PortsList_Add(&OpenedPorts, nullptr, probed.line, path, identity.serialNumber, "",
                     identity.eotFormat, baud, CharTimeMs(baud),
                     DeviceNumberOfLine(*probed.line))) {
    return false;
  }
  probed.line.reset();
  UpdateBaudrateForPort(path, identity.serialNumber, baud);
  return true;
}

// Tries `rates` in order and registers the first instrument that `accept`
// takes.
template <typename Accept>
Probe OpenFirstAccepted(const std::string& path, const std::vector<int>& rates, Accept accept) {
  return ProbeRates(path, rates, accept, [&](ProbedLine& line, const Identity& id, int baud) {
    return Register(line, path, id, baud);
  });
}

int ReportBusy() {
  SetError(nullptr, "The port is used by another process");
  return 0;
}

int OpenAtFixedRate(const std::string& path, int baud) {
  ProbedLine line;
  const int opened = OpenLine(*line.line, path, baud);
  if (opened == kLineBusy) return ReportBusy();
  if (opened != 1) {
    SetError(nullptr, "Unable to open port");
    return 0;
  }
  const std::optional<Identity> identity = Handshake(*line.line, baud);
  if (!identity || !Register(line, path, *identity, baud)) {
    SetError(nullptr, "Unable to communicate with device");
    return 0;
  }
  return 1;
}

int OpenWithRateSearch(const std::string& path) {
  switch (OpenFirstAccepted(path, RateSearchOrder(GetBaudrateForPort(path)), HasSerialNumber)) {
    case Probe::Accepted: return 1;
    case Probe::Busy: return ReportBusy();
    case Probe::NotFound: break;
  }
  SetError(nullptr, "Unable to open port");
  return 0;
}

// Candidate paths for a serial number: the path it was last found on first.
std::vector<std::string> CandidatePaths(const std::string& rememberedPath) {
  std::vector<std::string> paths = DetectedPorts();
  const auto it = std::ranges::find(paths, rememberedPath);
  if (it != paths.end()) std::rotate(paths.begin(), it, it + 1);
  return paths;
}

// Probes the candidate paths for the instrument with `serial`.
bool FindBySerialNumber(const std::string& serial, const std::vector<int>& rates,
                        const std::string& rememberedPath) {
  const std::string wanted = strtoupper(serial);
  const auto matches = [&](const Identity& id) { return strtoupper(id.serialNumber) == wanted; };
  const auto opensThere = [&](const std::string& path) {
    // An open port's instrument is known already; probing it would disturb it.
    const PathClaim claim(path);
    if (!claim.held() || PortsList_GetByDevPath(path) || OpenUnderAnotherName(path)) return false;
    try {
      return OpenFirstAccepted(path, rates, matches) == Probe::Accepted;
    } catch (const LineError&) {
      return false;  // a line that is gone or babbling holds no instrument to find
    }
  };
  return std::ranges::any_of(CandidatePaths(rememberedPath), opensThere);
}

// Removes the held port from the registry, then closes its line.
int CloseHeld(HeldPort& port) {
  PortsList_Del(&OpenedPorts, port.get());
  CloseLine(*port->line);
  return 1;
}

// Takes the line of `port` to close it, ending the exchange that holds it
// now (it fails with kClosedDuringExchange) instead of waiting it out.
std::optional<HeldPort> HoldToClose(Call& call, PortRef port, const char* notOpenText) {
  if (port) port->line->Interrupt();
  return call.Hold(std::move(port), notOpenText);
}

}  // namespace

extern "C" {

int ZeltoCom_Open(const char* devicePath, int baudrate) {
  return Guarded(0, [&] {
    const std::string path(Arg(devicePath));
    if (path.size() > kMaxPathLength) {
      SetError(nullptr, "The device path is too long (at most 253 characters)");
      return -1;
    }
    if (!DetectionCheck()) return 0;
    const PathClaim claim(path);
    if (!claim.held() || PortsList_GetByDevPath(path)) {
      SetError(nullptr, "The port is already in use");
      return 0;
    }
    if (const PortRef other = OpenUnderAnotherName(path)) {
      SetError(nullptr, "The port is already open as " + std::string(other->devicePath.view()));
      return 0;
    }
    if (!isDevicePathAvailable(path)) {
      if (ZeltoCom_EnumPorts() == 0) {
        SetError(nullptr, "No ports detected");
        return 0;
      }
      if (!isDevicePathAvailable(path)) {
        SetError(nullptr, "Device Path not available");
        return 0;
      }
    }
    if (!BaudrateAccepted(baudrate)) return -1;
    return baudrate != 0 ? OpenAtFixedRate(path, baudrate) : OpenWithRateSearch(path);
  });
}

int ZeltoCom_OpenSN(const char* serialNumber, int baudrate) {
  return Guarded(0, [&] {
    const std::string serial(Arg(serialNumber));
    if (!SerialNumberAcceptable(serial)) return -1;
    if (!DetectionCheck()) return 0;
    if (PortsList_GetBySerialNumber(&OpenedPorts, serial)) {
      SetError(nullptr, "The port is already open!");
      return 0;
    }
    if (!BaudrateAccepted(baudrate)) return -1;
    std::string rememberedPath;
    const long rememberedRate = GetBaudrateForSN(serial, &rememberedPath);
    const std::vector<int> rates =
        baudrate != 0 ? std::vector<int>{baudrate} : RateSearchOrder(rememberedRate);
    if (FindBySerialNumber(serial, rates, rememberedPath)) return 1;
    SetError(nullptr, "Unable to find device");
    return 0;
  });
}

int ZeltoCom_OpenID(const char* deviceID) {
  return Guarded(-1, [&] {
    if (!DetectionCheck()) return -1;
    if (!IDtoPortList_GetPortByDeviceID(Arg(deviceID))) {
      SetError(nullptr, "ID not found");
      return -1;
    }
    return 1;
  });
}

int ZeltoCom_Close(const char* devicePath) {
  return Guarded(0, [&](Call& call) {
    std::optional<HeldPort> port =
        HoldToClose(call, PortsList_GetByDevPath(Arg(devicePath)), "The device path is not in use");
    return port ? CloseHeld(*port) : 0;
  });
}

int ZeltoCom_CloseSN(const char* serialNumber) {
  return Guarded(0, [&](Call& call) {
    std::optional<HeldPort> port =
        HoldToClose(call, PortsList_GetBySerialNumber(&OpenedPorts, Arg(serialNumber)),
                    "The device path is not in use");
    return port ? CloseHeld(*port) : 0;
  });
}

int ZeltoCom_CloseAll(void) {
  return Guarded(1, [&](Call& call) {
    const std::vector<PortRef> ports = PortsList_All(&OpenedPorts);
    // Every exchange ends at once, not one port after the other.
    for (const PortRef& port : ports) port->line->Interrupt();
    for (const PortRef& port : ports) {
      // Another thread may close the same port first; then it is simply gone.
      std::optional<HeldPort> held = call.Hold(port, nullptr);
      if (held) CloseHeld(*held);
    }
    return 1;
  });
}

int ZeltoCom_Close_Multi_Thread(int* result, const char* devicePath) {
  return StoreResult(result, ZeltoCom_Close(devicePath));
}

int ZeltoCom_CloseSN_Multi_Thread(int* result, const char* serialNumber) {
  return StoreResult(result, ZeltoCom_CloseSN(serialNumber));
}

}  // extern "C"
