// Kept apart: <asm/termbits.h> redefines what <termios.h> declares.
#include "line_speed.hpp"

#include <asm/termbits.h>
#include <sys/ioctl.h>

namespace zeltosim::detail {

int ReadLineSpeed(int masterFd) {
  struct termios2 settings {};
  // On a pty master the terminal ioctls act on the slave's settings.
  if (ioctl(masterFd, TCGETS2, &settings) != 0) return -1;
  return static_cast<int>(settings.c_ospeed);
}

}  // namespace zeltosim::detail
