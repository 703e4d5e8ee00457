// The handshake that tells an instrument on a freshly opened line, shared by
// opening and by connection checks.
#include "device/handshake.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "device/bus.hpp"
#include "device/exchange.hpp"
#include "frame/clock.hpp"
#include "frame/utils.hpp"
#include "serial/baudrates.hpp"
#include "serial/driver.hpp"

namespace zeltocom {

namespace {

// How long each step of the handshake may take at one rate.
struct HandshakeTiming {
  double charTimeMs;
  int wakeUpPauseMs;
  TimeoutMs busFreeTimeoutMs;
  TimeoutMs serialTimeoutMs;
};

HandshakeTiming TimingFor(int baud) {
  const double t = CharTimeMs(baud);
  HandshakeTiming timing{};
  timing.charTimeMs = t;
  const bool raised = 11000.0 / baud < 0.15;
  timing.wakeUpPauseMs = raised ? 25 : std::max(12, static_cast<int>(std::ceil(30 * t)) + 20);
  timing.busFreeTimeoutMs = 2 * static_cast<TimeoutMs>(std::ceil(16 * t)) + 20;
  timing.serialTimeoutMs = (5 * static_cast<TimeoutMs>(std::ceil(7 * t)) + 5) * 4;
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
  SendOnLine(line, {}, "\r\n\r\n");
  PauseMs(timing.wakeUpPauseMs);

  SendOnLine(line, {}, "BUSFREE");
  const Reply freed = AwaitOnLine(line, {}, End::Marker("\r\n"), timing.busFreeTimeoutMs);
  if (!freed.syntaxError && (freed.text.empty() || Contains(freed.text, "BUSFREE"))) {
    return std::nullopt;
  }

  Identity identity;
  identity.eotFormat = GetEOTformat(line, timing.charTimeMs, freed.text);

  if (!SendOnLine(line, {}, "GETSERIAL")) return std::nullopt;
  const Reply serial =
      AwaitOnLine(line, {}, End::Marker(identity.eotFormat).Trimmed(), timing.serialTimeoutMs);
  if (!serial.answered()) return std::nullopt;
  identity.serialNumber = serial.text.substr(0, kMaxSerialLength);
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
