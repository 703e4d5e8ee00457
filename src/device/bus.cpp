#include "device/bus.hpp"

#include <algorithm>
#include <cmath>

#include "device/command.hpp"
#include "frame/errors.hpp"
#include "frame/registry.hpp"
#include "frame/utils.hpp"

namespace zeltocom {

namespace {

constexpr std::string_view kEotMarker = "\r\n\x04";

// After a refused BUSGET the line must not stay with a half-selected device.
// Only an attempt: the refusal is what the caller reports.
void FreeLineAfterRefusal(s_CommPort* port) {
  t_comresponse answer;
  try {
    if (CMD_Write(port, "BUSFREE") != 1) return;
    CMD_Wait(port, &answer, 80, port->eotFormat.view(), true);
  } catch (const LineError&) {
    return;
  }
  if (OutcomeOf(answer, 80) == WaitOutcome::Answered) port->Master()->SetBusOwner(port->Master());
}

}  // namespace

std::string GetEOTformat(SerialLine& line, double charTimeMs, std::string_view answer) {
  if (Contains(answer, kEotMarker)) return std::string(kEotMarker);
  const long wait = static_cast<long>(std::ceil(3 * charTimeMs)) * 5 + 16;
  t_comresponse more;
  RS232WaitForStraggler(line, &more, wait, "\x04");
  return Contains(more.data, "\x04") ? std::string(kEotMarker) : std::string("\r\n");
}

std::string GetEOTformat(s_CommPort* port, std::string_view answer) {
  return GetEOTformat(*port->line, port->charTimeMs, answer);
}

int CMD_BusFree(s_CommPort* port, t_comresponse* response) {
  s_CommPort* master = port->Master();
  if (CMD_Write(port, "BUSFREE") != 1) {
    SetError(master, "Unable to send command BUSFREE");
    return -1;
  }
  const long timeout = static_cast<long>(16 * port->charTimeMs + 20);
  CMD_Wait(port, response, timeout, port->eotFormat.view(), true);
  if (OutcomeOf(*response, timeout) == WaitOutcome::Answered) {
    master->SetBusOwner(master);
    return 1;
  }
  SetError(master, "Syntax error or Timeout in BUSFREE");
  return 0;
}

int CMD_BusGet(s_CommPort* port, std::string_view serialNumber, t_comresponse* response) {
  const std::string serial = strtoupper(serialNumber);
  s_CommPort* master = port->Master();

  if (master->busOwner->serialNumber == serial) {
    response->elapsedMs = 0;
    response->data = "OK";
    response->syntaxError = false;
    return 1;
  }
  if (master->busState == 0) {
    const int freed = CMD_BusFree(master->busOwner, response);
    if (freed != 1) return freed;
  }

  const PortRef known = PortsList_GetBySerialNumber(&master->chain, serial);
  const std::string terminator = known != nullptr ? std::string(known->eotFormat.view()) : "\r\n";
  if (CMD_Write(master, "BUSGET" + serial) != 1) return -1;
  const long timeout = std::max(80L, static_cast<long>(15 * master->charTimeMs + 20));
  CMD_Wait(master, response, timeout, terminator, known != nullptr);

  if (OutcomeOf(*response, timeout) != WaitOutcome::Answered) {
    FreeLineAfterRefusal(port);
    SetError(master, "Syntax error or Timeout in BUSGET");
    return 0;
  }
  if (!Contains(response->data, "OK")) {
    FreeLineAfterRefusal(port);
    return 0;
  }
  if (known != nullptr) {
    master->SetBusOwner(known.get());
    return 1;
  }
  if (serial != master->serialNumber.view()) {
    const std::string eot = GetEOTformat(master, response->data);
    const PortRef added = PortsList_Add(&master->chain, master, master->line,
                                        master->devicePath.view(), serial, "", eot,
                                        master->baudrate, master->charTimeMs);
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
