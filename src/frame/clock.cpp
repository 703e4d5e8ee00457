#include "frame/clock.hpp"

#include <sched.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace zeltocom {

namespace {

// Busy waits measured their time-outs in processor time, which a yielding
// thread barely earns on a loaded machine: a 1 s time-out lasted minutes
// beside four busy processes. So they are asked for by name only.
bool ReadWaitMode() {
  const char* mode = std::getenv("ZELTOCOM_WAIT");
  return mode == nullptr || std::strcmp(mode, "busy") != 0;
}

std::atomic<bool> blockingWaits{ReadWaitMode()};

double ReadMs(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) * 1000.0 + static_cast<double>(now.tv_nsec) / 1.0e6;
}

}  // namespace

bool BlockingWaits() { return blockingWaits.load(std::memory_order_relaxed); }

void SetBlockingWaits(bool blocking) { blockingWaits = blocking; }

double ClockMs() { return ReadMs(BlockingWaits() ? CLOCK_MONOTONIC : CLOCK_THREAD_CPUTIME_ID); }

double WallClockMs() { return ReadMs(CLOCK_MONOTONIC); }

double BusyWaitWallLimitMs(double timeoutMs) { return 2 * timeoutMs + 1000; }

void PauseMs(int ms) {
  if (ms <= 0) return;
  timespec span{ms / 1000, static_cast<long>(ms % 1000) * 1'000'000L};
  while (nanosleep(&span, &span) != 0 && errno == EINTR) {
  }
}

void delayms(int ms) {
  if (ms <= 0) return;
  if (BlockingWaits()) {
    PauseMs(ms);
    return;
  }
  const double end = ClockMs() + ms;
  const double wallEnd = WallClockMs() + BusyWaitWallLimitMs(ms);
  while (ClockMs() < end && WallClockMs() < wallEnd) sched_yield();
}

}  // namespace zeltocom
