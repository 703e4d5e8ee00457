#include "device/bus.hpp"

#include <algorithm>
#include <cmath>

#include "frame/errors.hpp"
#include "frame/registry.hpp"
#include "frame/utils.hpp"

namespace zeltocom {

namespace {

constexpr std::string_view kEotMarker = "\r\n\x04";

// After a refused BUSGET the line must not stay with a half-selected device.
// Only an attempt: the refusal is what the caller reports.
void FreeLineAfterRefusal(s_CommPort* port) {
  try {
    const Reply freed =
        Exchange(port, "BUSFREE", End::Marker(port->eotFormat.view()).Trimmed(), 80);
    if (freed.answered()) port->Master()->SetBusOwner(port->Master());
  } catch (const LineError&) {
  }
}

}  // namespace

TimeoutMs BusGetTimeoutMs(double charTimeMs, Rounding rounding) {
  const double chars = 15 * charTimeMs;
  const double rounded = rounding == Rounding::Up ? std::ceil(chars) : std::floor(chars);
  return std::max<TimeoutMs>(static_cast<TimeoutMs>(rounded) + 20, 80);
}

TimeoutMs BusFreeTimeoutMs(double charTimeMs) {
  return static_cast<TimeoutMs>(16 * charTimeMs + 20);
}

TimeoutMs ChainFreeTimeMs(double charTimeMs) {
  return static_cast<TimeoutMs>(5 * charTimeMs) * 5 + 50;
}

TimeoutMs ChainPollTimeMs(double charTimeMs) {
  return static_cast<TimeoutMs>(5 * charTimeMs) * 5 + 20;
}

Reply AskForLine(s_CommPort* master, std::string_view serial, const End& end, Rounding rounding) {
  return Exchange(master, "BUSGET" + std::string(serial), end,
                  BusGetTimeoutMs(master->charTimeMs, rounding));
}

std::string GetEOTformat(SerialLine& line, double charTimeMs, std::string_view answer) {
  if (Contains(answer, kEotMarker)) return std::string(kEotMarker);
  const TimeoutMs wait = static_cast<TimeoutMs>(std::ceil(3 * charTimeMs)) * 5 + 16;
  const Reply more = AwaitStragglerOnLine(line, {}, End::Marker("\x04"), wait);
  return Contains(more.text, "\x04") ? std::string(kEotMarker) : std::string("\r\n");
}

std::string GetEOTformat(s_CommPort* port, std::string_view answer) {
  if (Contains(answer, kEotMarker)) return std::string(kEotMarker);
  const TimeoutMs wait = static_cast<TimeoutMs>(std::ceil(3 * port->charTimeMs)) * 5 + 16;
  const Reply more = AwaitStraggler(port, End::Marker("\x04"), wait);
  return Contains(more.text, "\x04") ? std::string(kEotMarker) : std::string("\r\n");
}

void AwaitLateEot(s_CommPort* port, const Reply& answer, TimeoutMs waitMs) {
  if (!Contains(answer.text, "\x04")) AwaitStraggler(port, End::Marker("\x04"), waitMs);
}

int CMD_BusFree(s_CommPort* port, Reply* reply) {
  s_CommPort* master = port->Master();
  *reply = Exchange(port, "BUSFREE", End::Marker(port->eotFormat.view()).Trimmed(),
                    BusFreeTimeoutMs(port->charTimeMs));
  if (reply->outcome == Outcome::NotSent) {
    SetError(master, "Unable to send command BUSFREE");
    return -1;
  }
  if (reply->answered()) {
    master->SetBusOwner(master);
    return 1;
  }
  SetError(master, "Syntax error or Timeout in BUSFREE");
  return 0;
}

int CMD_BusGet(s_CommPort* port, std::string_view serialNumber, Reply* reply) {
  const std::string serial = strtoupper(serialNumber);
  s_CommPort* master = port->Master();

  if (master->busOwner->serialNumber == serial) {
    *reply = Reply{"OK", Outcome::Answered};
    return 1;
  }
  if (master->busOwner != master) {
    const int freed = CMD_BusFree(master->busOwner, reply);
    if (freed != 1) return freed;
  }

  const PortRef known = PortsList_GetBySerialNumber(&master->chain, serial);
  End end = End::Marker(known != nullptr ? known->eotFormat.view() : "\r\n");
  if (known != nullptr) end = end.Trimmed();
  *reply = AskForLine(master, serial, end, Rounding::Down);
  if (reply->outcome == Outcome::NotSent) return -1;
  if (!reply->answered()) {
    FreeLineAfterRefusal(port);
    SetError(master, "Syntax error or Timeout in BUSGET");
    return 0;
  }
  if (!Contains(reply->text, "OK")) {
    FreeLineAfterRefusal(port);
    return 0;
  }
  if (known != nullptr) {
    master->SetBusOwner(known.get());
    return 1;
  }
  if (serial != master->serialNumber.view()) {
    const std::string eot = GetEOTformat(master, reply->text);
    const PortRef added =
        PortsList_Add(&master->chain, master, master->line, master->devicePath.view(), serial, "",
                      eot, master->baudrate, master->charTimeMs);
    if (!added) {
      FreeLineAfterRefusal(port);
      return 0;
    }
    master->SetBusOwner(added.get());
    return 1;
  }
  master->SetBusOwner(master);
  return 1;
}

}  // namespace zeltocom
