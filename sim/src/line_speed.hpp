// The host's configured line speed, seen from the master side of a pty.
#pragma once

namespace zeltosim::detail {

// The output speed the slave is set to, in baud, or -1 when it cannot be read.
// Reads the extended settings so that arbitrary (BOTHER) rates come out exact.
int ReadLineSpeed(int masterFd);

}  // namespace zeltosim::detail
