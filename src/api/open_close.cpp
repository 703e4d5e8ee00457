// Opening and closing ports.
#include <algorithm>
#include <cmath>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "api/common.hpp"
#include "device/bus.hpp"
#include "device/command.hpp"
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

// A line opened for a handshake: closed again unless it is registered.
struct ProbedLine {
  ~ProbedLine() {
    if (fd < 0) return;
    RS232_FlushBuffers(fd);
    RS232ClosePort(fd);
  }
  int fd = -1;
};

// Paths that some thread is opening right now, so that two threads never
// open one path at once.
class PathClaim {
 public:
  explicit PathClaim(std::string path) : path_(std::move(path)) {
    std::lock_guard lock(mutex_);
    held_ = claimed_.insert(path_).second;
  }
  ~PathClaim() {
    if (!held_) return;
    std::lock_guard lock(mutex_);
    claimed_.erase(path_);
  }
  PathClaim(const PathClaim&) = delete;
  PathClaim& operator=(const PathClaim&) = delete;
  bool held() const { return held_; }

 private:
  static inline std::mutex mutex_;
  static inline std::set<std::string> claimed_;
  std::string path_;
  bool held_ = false;
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
  if (OutcomeOf(reply, timing.serialTimeoutMs) != WaitOutcome::Answered) return std::nullopt;
  identity.serialNumber = reply.data.substr(0, kMaxSerialLength);
  return identity;
}

// Registers the probed line as an open port; the line is the registry's then.
bool Register(ProbedLine& line, const std::string& path, const Identity& identity, int baud) {
  if (!PortsList_Add(&OpenedPorts, nullptr, line.fd, path, identity.serialNumber, "",
                     identity.eotFormat, baud, CharTimeMs(baud))) {
    return false;
  }
  line.fd = -1;
  UpdateBaudrateForPort(path, identity.serialNumber, baud);
  return true;
}

enum class Probe { Registered, NotFound, Busy };

// Tries `rates` in order and registers the first instrument that `accept`
// takes.
template <typename Accept>
Probe OpenFirstAccepted(const std::string& path, const std::vector<int>& rates, Accept accept) {
  for (int baud : rates) {
    ProbedLine line;
    const int opened = RS232OpenPort(line.fd, path, baud);
    if (opened == kPortBusy) return Probe::Busy;
    if (opened != 1) continue;
    const std::optional<Identity> identity = Handshake(line.fd, baud);
    if (!identity || !accept(*identity)) continue;
    return Register(line, path, *identity, baud) ? Probe::Registered : Probe::NotFound;
  }
  return Probe::NotFound;
}

int ReportBusy() {
  SetError(nullptr, "The port is used by another process");
  return 0;
}

int OpenAtFixedRate(const std::string& path, int baud) {
  ProbedLine line;
  const int opened = RS232OpenPort(line.fd, path, baud);
  if (opened == kPortBusy) return ReportBusy();
  if (opened != 1) {
    SetError(nullptr, "Unable to open port");
    return 0;
  }
  const std::optional<Identity> identity = Handshake(line.fd, baud);
  if (!identity || !Register(line, path, *identity, baud)) {
    SetError(nullptr, "Unable to communicate with device");
    return 0;
  }
  return 1;
}

int OpenWithRateSearch(const std::string& path) {
  const auto hasSerial = [](const Identity& id) { return id.serialNumber.size() > 3; };
  switch (OpenFirstAccepted(path, RateSearchOrder(GetBaudrateForPort(path)), hasSerial)) {
    case Probe::Registered: return 1;
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
  for (const std::string& path : CandidatePaths(rememberedPath)) {
    // An open port's instrument is known already; probing it would disturb it.
    const PathClaim claim(path);
    if (!claim.held() || PortsList_GetByDevPath(path)) continue;
    try {
      if (OpenFirstAccepted(path, rates, matches) == Probe::Registered) return true;
    } catch (const LineError&) {
      // A line that is gone or babbling holds no instrument to find.
    }
  }
  return false;
}

// Removes the held port from the registry, then closes its line.
int CloseHeld(HeldPort& port) {
  PortsList_Del(&OpenedPorts, port.get());
  RS232ClosePort(port->fd);
  return 1;
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
  });
}

int ZeltoCom_OpenSN(const char* serialNumber, int baudrate) {
  return Guarded(0, [&] {
    const std::string serial(Arg(serialNumber));
    if (serial.empty()) {
      SetError(nullptr, "No serial number given");
      return -1;
    }
    if (serial.size() > kMaxSerialLength) {
      SetError(nullptr, "The serial number is too long (at most 14 characters)");
      return -1;
    }
    if (!DetectionCheck()) return 0;
    if (PortsList_GetBySerialNumber(&OpenedPorts, serial)) {
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
        call.Hold(PortsList_GetByDevPath(Arg(devicePath)), "The device path is not in use");
    return port ? CloseHeld(*port) : 0;
  });
}

int ZeltoCom_CloseSN(const char* serialNumber) {
  return Guarded(0, [&](Call& call) {
    std::optional<HeldPort> port = call.Hold(
        PortsList_GetBySerialNumber(&OpenedPorts, Arg(serialNumber)), "The device path is not in use");
    return port ? CloseHeld(*port) : 0;
  });
}

int ZeltoCom_CloseAll(void) {
  return Guarded(1, [&](Call& call) {
    const int count = PortsList_Count(&OpenedPorts);
    for (int i = 0; i < count; ++i) {
      // Another thread may close the same port first; then it is simply gone.
      std::optional<HeldPort> port = call.Hold(PortsList_GetByIndex(&OpenedPorts, 0), nullptr);
      if (port) CloseHeld(*port);
    }
    return 1;
  });
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
