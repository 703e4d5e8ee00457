#pragma once

namespace zeltocom {

// Processor time of the whole process in milliseconds. Every time-out, pause
// and elapsed time of the library counts this one clock.
double ClockMs();

// Busy-waits `ms` milliseconds of processor time. It deliberately does not
// sleep: a sleeping thread would stop the clock it is waiting on. It yields
// the processor to threads that wait for it.
void delayms(int ms);

// Nothing to pump on this platform; kept so that waiting loops read alike.
inline void DoEvents() {}

}  // namespace zeltocom
