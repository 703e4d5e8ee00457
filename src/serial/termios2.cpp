// Kernel termios2 and serial_struct: this file must not see <termios.h>.
#include <asm/termbits.h>
#include <linux/serial.h>
#include <sys/ioctl.h>

#include <algorithm>

#include "serial/driver.hpp"
#include "serial/line_flags.hpp"
#include "serial/termios2.hpp"

namespace zeltocom {

namespace {

// What cfmakeraw does, for the kernel's structure.
void MakeRaw(struct termios2& t) {
  t.c_iflag &= ~tcflag_t{IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON};
  t.c_oflag &= ~tcflag_t{OPOST};
  t.c_lflag &= ~tcflag_t{ECHO | ECHONL | ICANON | ISIG | IEXTEN};
  t.c_cflag &= ~tcflag_t{CSIZE | PARENB};
  t.c_cflag |= CS8;
  t.c_cc[VMIN] = 1;
  t.c_cc[VTIME] = 0;
}

// serial_struct keeps its flags in an int; the kernel's flag bits are
// unsigned.
int WithFlags(int flags, unsigned clear, unsigned set) {
  return static_cast<int>((static_cast<unsigned>(flags) & ~clear) | set);
}

void SetSpeedBits(struct termios2& t, tcflag_t speed) {
  t.c_cflag = (t.c_cflag & ~tcflag_t{CBAUD | CIBAUD}) | speed;
}

}  // namespace

int CustomDivisor(int baudBase, int baud) {
  if (baud <= 0) return 1;
  return std::max(1, (baudBase + baud / 2) / baud);
}

int SetRateByCustomDivisor(int& fd, int baud) {
  if (baud <= 0) return -1;
  struct serial_struct serial {};
  if (ioctl(fd, TIOCGSERIAL, &serial) != 0) return -1;
  serial.flags = WithFlags(serial.flags, ASYNC_SPD_MASK, ASYNC_SPD_CUST);
  serial.custom_divisor = CustomDivisor(serial.baud_base, baud);
  if (ioctl(fd, TIOCSSERIAL, &serial) != 0) return -1;

  // B38400 is the code that the driver maps to the custom divisor.
  struct termios2 t {};
  if (ioctl(fd, TCGETS2, &t) != 0) return -1;
  SetSpeedBits(t, B38400);
  t.c_ispeed = 38400;
  t.c_ospeed = 38400;
  return ioctl(fd, TCSETS2, &t) == 0 ? 0 : -1;
}

int SetArbitraryRate(int& fd, int baud) {
  struct termios2 t {};
  if (ioctl(fd, TCGETS2, &t) != 0) return -1;
  SetSpeedBits(t, BOTHER);
  t.c_ispeed = static_cast<speed_t>(baud);
  t.c_ospeed = static_cast<speed_t>(baud);
  return ioctl(fd, TCSETS2, &t) == 0 ? 0 : -1;
}

int ApplyRawArbitraryRate(int fd) {
  struct termios2 t {};
  if (ioctl(fd, TCGETS2, &t) != 0) return -1;
  SetInstrumentLineFlags(t, false);
  t.c_cc[VTIME] = 5;
  t.c_cc[VMIN] = 0;
  MakeRaw(t);
  ioctl(fd, TCFLSH, TCIFLUSH);
  return ioctl(fd, TCSETS2, &t) == 0 ? 1 : 0;
}

void SetLowLatency(int fd) {
  struct serial_struct serial {};
  if (ioctl(fd, TIOCGSERIAL, &serial) != 0) return;
  serial.flags = WithFlags(serial.flags, 0, ASYNC_LOW_LATENCY);
  ioctl(fd, TIOCSSERIAL, &serial);
}

int LineBaudrate(int fd) {
  struct termios2 t {};
  if (ioctl(fd, TCGETS2, &t) != 0) return -1;
  return static_cast<int>(t.c_ospeed);
}

int SerialPortType(int fd) {
  struct serial_struct serial {};
  if (ioctl(fd, TIOCGSERIAL, &serial) != 0) return -1;
  return serial.type;
}

}  // namespace zeltocom
