// Opening and closing ports.
#include <algorithm>
#include <cmath>
#include <optional>
#include <string>
#include <vector>

#include "api/common.hpp"
#include "device/bus.hpp"
#include "frame/clock.hpp"
#include "frame/errors.hpp"
#include "frame/registry.hpp"
#include "frame/utils.hpp"
#include "serial/baudrates.hpp"
#include "serial/driver.hpp"
#include "serial/enumerate.hpp"
#include "zeltocom.h"

using namespace zeltocom;

namespace {

// What a freshly opened line is asked and how long each step may take.
struct HandshakeTiming {
  double charTimeMs;
  int wakeUpPauseMs;
  long busFreeTimeoutMs;
  long serialTimeoutMs;
};

HandshakeTiming TimingFor(int baud) {
  const double t = CharTimeMs(baud);
  HandshakeTiming timing{};
  timing.charTimeMs = t;
  const bool raised = 11000.0 / baud < 0.15;
  timing.wakeUpPauseMs =
      raised ? 25 : std::max(12, static_cast<int>(std::ceil(30 * t)) + 20);
  timing.busFreeTimeoutMs = 2 * static_cast<long>(std::ceil(16 * t)) + 20;
  timing.serialTimeoutMs = (5 * static_cast<long>(std::ceil(7 * t)) + 5) * 4;
  return timing;
}

struct Identity {
  std::string serialNumber;
  std::string eotFormat;
};

// Wakes the line, frees the instrument bus, learns the end marker and asks
// the serial number. A device that does not know BUSFREE still counts as
// present; one that echoes it is a loop-back, not an instrument.
std::optional<Identity> Handshake(int& fd, int baud) {
  const HandshakeTiming timing = TimingFor(baud);
  RS232SendCommand(fd, "\r\n\r\n");
  delayms(timing.wakeUpPauseMs);

  RS232SendCommand(fd, "BUSFREE");
  t_comresponse reply;
  RS232WaitForData(fd, &reply, timing.busFreeTimeoutMs, "\r\n", false);
  if (!reply.syntaxError && (reply.data.empty() || Contains(reply.data, "BUSFREE"))) {
    return std::nullopt;
  }

  Identity identity;
  identity.eotFormat = GetEOTformat(fd, timing.charTimeMs, reply.data);
  if (Contains(identity.eotFormat, "\x04")) RS232EnableEventChar(fd);

  if (RS232SendCommand(fd, "GETSERIAL") != 1) return std::nullopt;
  RS232WaitForData(fd, &reply, timing.serialTimeoutMs, identity.eotFormat, true);
  if (reply.elapsedMs >= timing.serialTimeoutMs || reply.syntaxError) return std::nullopt;
  identity.serialNumber = reply.data.substr(0, 14);
  return identity;
}

void Abandon(int& fd) {
  RS232_FlushBuffers(fd);
  RS232ClosePort(fd);
}

bool Register(int fd, const std::string& path, const Identity& identity, int baud) {
  if (PortsList_Add(&OpenedPorts, nullptr, fd, path, identity.serialNumber, "",
                    identity.eotFormat, baud, CharTimeMs(baud)) != 1) {
    return false;
  }
  UpdateBaudrateForPort(path, identity.serialNumber, baud);
  return true;
}

// Opens `path` at `baud` and identifies the instrument; the line stays open
// only when `accept` takes the identity.
template <typename Accept>
std::optional<Identity> OpenAndIdentify(int& fd, const std::string& path, int baud,
                                        Accept accept) {
  if (RS232OpenPort(fd, path, baud) != 1) return std::nullopt;
  std::optional<Identity> identity = Handshake(fd, baud);
  if (identity && accept(*identity)) return identity;
  Abandon(fd);
  return std::nullopt;
}

int OpenAtFixedRate(const std::string& path, int baud) {
  int fd = -1;
  if (RS232OpenPort(fd, path, baud) != 1) {
    SetError(nullptr, "Unable to open port");
    return 0;
  }
  const std::optional<Identity> identity = Handshake(fd, baud);
  if (!identity || !Register(fd, path, *identity, baud)) {
    Abandon(fd);
    SetError(nullptr, "Unable to communicate with device");
    return 0;
  }
  return 1;
}

// Tries `rates` in order and registers the first instrument that `accept`
// takes.
template <typename Accept>
bool OpenFirstAccepted(const std::string& path, const std::vector<int>& rates, Accept accept) {
  for (int baud : rates) {
    int fd = -1;
    const std::optional<Identity> identity = OpenAndIdentify(fd, path, baud, accept);
    if (!identity) continue;
    if (Register(fd, path, *identity, baud)) return true;
    Abandon(fd);
    return false;
  }
  return false;
}

int OpenWithRateSearch(const std::string& path) {
  const auto hasSerial = [](const Identity& id) { return id.serialNumber.size() > 3; };
  if (OpenFirstAccepted(path, RateSearchOrder(GetBaudrateForPort(path)), hasSerial)) return 1;
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

int CloseRecord(s_CommPort* port) {
  RS232ClosePort(port->fd);
  PortsList_Del(&OpenedPorts, port);
  return 1;
}

}  // namespace

extern "C" {

int ZeltoCom_Open(const char* devicePath, int baudrate) {
  const std::string path(Arg(devicePath));
  if (!DetectionCheck()) return 0;
  if (PortsList_GetByDevPath(path) != nullptr) {
    SetError(nullptr, "The port is already in use");
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
  if (!isBaudrateValid(baudrate)) {
    SetError(nullptr, "Invalid baud-rate");
    return -1;
  }
  return baudrate != 0 ? OpenAtFixedRate(path, baudrate) : OpenWithRateSearch(path);
}

int ZeltoCom_OpenSN(const char* serialNumber, int baudrate) {
  const std::string serial(Arg(serialNumber));
  if (!DetectionCheck()) return 0;
  if (PortsList_GetBySerialNumber(&OpenedPorts, serial) != nullptr) {
    SetError(nullptr, "The port is already open!");
    return 0;
  }
  if (!isBaudrateValid(baudrate)) {
    SetError(nullptr, "Invalid baud-rate");
    return -1;
  }
  std::string rememberedPath;
  const long rememberedRate = GetBaudrateForSN(serial, &rememberedPath);
  const std::vector<int> rates =
      baudrate != 0 ? std::vector<int>{baudrate} : RateSearchOrder(rememberedRate);
  for (const std::string& path : CandidatePaths(rememberedPath)) {
    // An open port's instrument is known already; probing it would disturb it.
    if (PortsList_GetByDevPath(path) != nullptr) continue;
    const auto wanted = [&](const Identity& id) { return id.serialNumber == serial; };
    if (OpenFirstAccepted(path, rates, wanted)) return 1;
  }
  SetError(nullptr, "Unable to find device");
  return 0;
}

int ZeltoCom_OpenID(const char* deviceID) {
  if (!DetectionCheck()) return -1;
  if (IDtoPortList_GetPortByDeviceID(lstIDtoPort, Arg(deviceID)) == nullptr) {
    SetError(nullptr, "ID not found");
    return -1;
  }
  return 1;
}

int ZeltoCom_Close(const char* devicePath) {
  s_CommPort* port = PortsList_GetByDevPath(Arg(devicePath));
  if (port == nullptr) {
    SetError(nullptr, "The device path is not in use");
    return 0;
  }
  return CloseRecord(port);
}

int ZeltoCom_CloseSN(const char* serialNumber) {
  s_CommPort* port = PortsList_GetBySerialNumber(&OpenedPorts, Arg(serialNumber));
  if (port == nullptr) {
    SetError(nullptr, "The device path is not in use");
    return 0;
  }
  return CloseRecord(port);
}

int ZeltoCom_CloseAll(void) {
  const int count = OpenedPorts.count;
  for (int i = 0; i < count; ++i) {
    s_CommPort* first = PortsList_GetByIndex(&OpenedPorts, 0);
    if (first == nullptr) break;
    CloseRecord(first);
  }
  return 1;
}

int ZeltoCom_Close_Multi_Thread(int* result, const char* devicePath) {
  const int r = ZeltoCom_Close(devicePath);
  if (result != nullptr) *result = r;
  return r;
}

int ZeltoCom_CloseSN_Multi_Thread(int* result, const char* serialNumber) {
  const int r = ZeltoCom_CloseSN(serialNumber);
  if (result != nullptr) *result = r;
  return r;
}

}  // extern "C"
