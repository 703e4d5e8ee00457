#pragma once

namespace zeltocom {

// How the library waits for instruments, fixed when the library is loaded.
// Busy (the default): a waiting thread polls its line without sleeping and
// every time-out counts the processor time of the thread that waits, so that
// time-outs mean the same on a loaded and an idle machine and parallel waits
// do not shorten each other's. Blocking (ZELTOCOM_WAIT=block): a waiting
// thread sleeps in poll() and time-outs count monotonic wall-clock time, so a
// waiting port costs no processor.
bool BlockingWaits();

// The one clock of the library, in milliseconds: every time-out, pause and
// elapsed time counts it. Processor time of the calling thread, or monotonic
// time with blocking waits.
double ClockMs();

// Monotonic wall-clock time in milliseconds, whatever the wait mode: for
// waits that sleep in any mode.
double WallClockMs();

// Waits `ms` milliseconds of the library clock: a busy wait that yields the
// processor to threads that want it, or a sleep with blocking waits.
void delayms(int ms);

// Lets `ms` milliseconds of wall-clock time pass, sleeping, whatever the wait
// mode. For pauses that give an instrument time to settle: the instrument
// lives in wall-clock time, and a busy pause would cost one processor per
// port and stretch with the number of ports that pause at once.
void PauseMs(int ms);

// Nothing to pump on this platform; kept so that waiting loops read alike.
inline void DoEvents() {}

}  // namespace zeltocom
