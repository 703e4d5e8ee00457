#pragma once

#include <cstdint>
#include <string>

#include "frame/serial_line.hpp"
// The machine's ports and the rate each last worked at are the serial
// layer's; the calls reach them through here, and never its driver.
#include "serial/baudrates.hpp"
#include "serial/enumerate.hpp"

namespace zeltocom {

// OpenLine's result when another process holds the port.
inline constexpr int kLineBusy = -1;

// Opens `path` raw at `baud`, for this process alone. 1 when open and
// configured; kLineBusy when another process uses the port; else 0.
int OpenLine(SerialLine& line, const std::string& path, int baud);
// Discards both queues, gives up the exclusive access and closes; nothing
// when it is closed already.
void CloseLine(SerialLine& line);
// Throws away what the line received and has not been read.
void DiscardInput(SerialLine& line);
// The device number of the character device the line is open on; 0 when
// there is none.
std::uint64_t DeviceNumberOfLine(const SerialLine& line);

}  // namespace zeltocom
