// The handshake that tells an instrument on a freshly opened line, shared by
// opening and by connection checks.
#include "api/handshake.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "device/bus.hpp"
#include "device/command.hpp"
#include "frame/clock.hpp"
#include "frame/utils.hpp"
#include "serial/baudrates.hpp"

namespace zeltocom {

namespace {

// How long each step of the handshake may take at one rate.
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

}  // namespace

ProbedLine::~ProbedLine() {
  if (!line || line->fd < 0) return;
  RS232_FlushBuffers(*line);
  RS232ClosePort(*line);
}

namespace {

// The device behind a path, whatever name it goes by.
std::string ClaimKey(const std::string& path) {
  const std::uint64_t device = DeviceNumberOf(path);
  return device != 0 ? "device " + std::to_string(device) : path;
}

}  // namespace

PathClaim::PathClaim(const std::string& path) : path_(ClaimKey(path)) {
  std::lock_guard lock(mutex_);
  held_ = claimed_.insert(path_).second;
}

PathClaim::~PathClaim() {
  if (!held_) return;
  std::lock_guard lock(mutex_);
  claimed_.erase(path_);
}

// A device that does not know BUSFREE still counts as present; one that
// echoes it is a loop-back, not an instrument.
std::optional<Identity> Handshake(SerialLine& line, int baud) {
  const HandshakeTiming timing = TimingFor(baud);
  RS232SendCommand(line, "\r\n\r\n");
  PauseMs(timing.wakeUpPauseMs);

  RS232SendCommand(line, "BUSFREE");
  t_comresponse reply;
  RS232WaitForData(line, &reply, timing.busFreeTimeoutMs, "\r\n", false);
  if (!reply.syntaxError && (reply.data.empty() || Contains(reply.data, "BUSFREE"))) {
    return std::nullopt;
  }

  Identity identity;
  identity.eotFormat = GetEOTformat(line, timing.charTimeMs, reply.data);
  if (Contains(identity.eotFormat, "\x04")) RS232EnableEventChar(line);

  if (RS232SendCommand(line, "GETSERIAL") != 1) return std::nullopt;
  RS232WaitForData(line, &reply, timing.serialTimeoutMs, identity.eotFormat, true);
  if (OutcomeOf(reply, timing.serialTimeoutMs) != WaitOutcome::Answered) return std::nullopt;
  identity.serialNumber = reply.data.substr(0, kMaxSerialLength);
  return identity;
}

PortRef OpenUnderAnotherName(const std::string& path) {
  const std::uint64_t device = DeviceNumberOf(path);
  if (device == 0) return nullptr;
  for (const PortRef& port : PortsList_All(&OpenedPorts)) {
    if (port->deviceNumber == device && port->devicePath != path) return port;
  }
  return nullptr;
}

}  // namespace zeltocom
