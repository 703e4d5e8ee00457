#include "device/lines.hpp"

#include "serial/driver.hpp"

namespace zeltocom {

int OpenLine(SerialLine& line, const std::string& path, int baud) {
  const int opened = RS232OpenPort(line, path, baud);
  return opened == kPortBusy ? kLineBusy : opened;
}

void CloseLine(SerialLine& line) { RS232ClosePort(line); }

void DiscardInput(SerialLine& line) { PurgePort(line); }

std::uint64_t DeviceNumberOfLine(const SerialLine& line) { return DeviceNumberOf(line.fd); }

}  // namespace zeltocom
