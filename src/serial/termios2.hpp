#pragma once

// Line settings that need the kernel's termios2 and serial_struct, whose
// header clashes with <termios.h>; kept behind plain ints.
namespace zeltocom {

// The UART divisor nearest to `baud` from the clock's `baudBase`; at least 1.
int CustomDivisor(int baudBase, int baud);

// Configures the line raw with the rate set by SetArbitraryRate left in
// place: 1 applied, 0 applying failed, -1 the settings could not be read.
int ApplyRawArbitraryRate(int fd);

// Asks USB serial adapters to hand received bytes on at once instead of
// batching them; drivers that cannot (pseudo-terminals) are left as they are.
void SetLowLatency(int fd);

// The rate the line is set to, in baud; -1 when it cannot be read.
int LineBaudrate(int fd);

// The UART type that the serial driver reports, 0 for none; -1 when the
// descriptor is not a serial port.
int SerialPortType(int fd);

}  // namespace zeltocom
