#pragma once

// Shared by the two termios flavours; include after <termios.h> or
// <asm/termbits.h>, whose flag macros agree.
namespace zeltocom {

// The 8N1 line without flow control that the instruments use.
template <typename Termios>
void SetInstrumentLineFlags(Termios& t, bool clearSpeedBit) {
  using Flags = decltype(t.c_iflag);
  t.c_iflag &= ~Flags{IXON | IXOFF | IXANY};
  t.c_oflag = 0;
  t.c_lflag = 0;
  t.c_cflag &= ~Flags{CRTSCTS | PARENB | CSTOPB | CSIZE};
  if (clearSpeedBit) t.c_cflag &= ~0x2u;
  t.c_cflag |= CS8 | CREAD | CLOCAL;
}

}  // namespace zeltocom
