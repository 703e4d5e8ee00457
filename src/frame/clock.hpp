#pragma once

#include <cstdint>

namespace zeltocom {

// Every time-out of the library, in milliseconds.
using TimeoutMs = std::int64_t;

// How the library waits for instruments. Blocking (the default): a waiting
// thread sleeps in poll() and every time-out counts monotonic wall-clock
// time, so a waiting port costs no processor and a busy machine cannot
// stretch a time-out. Busy (ZELTOCOM_WAIT=busy, read when the library is
// loaded): a waiting thread polls its line without sleeping and time-outs
// count the processor time of the thread that waits; such a wait still ends
// at the latest after twice its time-out plus a second of wall-clock time,
// however little processor time it is given.
bool BlockingWaits();
// Switches the mode for the whole process; for tests and benchmarks that
// compare the two.
void SetBlockingWaits(bool blocking);

// The one clock of the library's time-outs, in milliseconds: processor time
// of the calling thread with busy waits, monotonic time otherwise.
double ClockMs();

// Monotonic wall-clock time in milliseconds, whatever the wait mode: for
// pauses, and for the bounds that no wait may outlast.
double WallClockMs();

// The wall-clock time a busy wait of `timeoutMs` may take at the most.
double BusyWaitWallLimitMs(double timeoutMs);

// Waits `ms` milliseconds of the library clock: a busy wait that yields the
// processor to threads that want it (bounded in wall-clock time like every
// busy wait), or a sleep with blocking waits.
void delayms(int ms);

// Lets `ms` milliseconds of wall-clock time pass, sleeping, whatever the wait
// mode. For pauses that give an instrument time to settle: the instrument
// lives in wall-clock time, and a busy pause would cost one processor per
// port and stretch with the number of ports that pause at once.
void PauseMs(int ms);

}  // namespace zeltocom
