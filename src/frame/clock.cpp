#include "frame/clock.hpp"

#include <sched.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace zeltocom {

namespace {

bool ReadWaitMode() {
  const char* mode = std::getenv("ZELTOCOM_WAIT");
  return mode != nullptr && std::strcmp(mode, "block") == 0;
}

const bool kBlockingWaits = ReadWaitMode();

double ReadMs(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) * 1000.0 + static_cast<double>(now.tv_nsec) / 1.0e6;
}

}  // namespace

bool BlockingWaits() { return kBlockingWaits; }

double ClockMs() {
  return ReadMs(kBlockingWaits ? CLOCK_MONOTONIC : CLOCK_THREAD_CPUTIME_ID);
}

double WallClockMs() { return ReadMs(CLOCK_MONOTONIC); }

void PauseMs(int ms) {
  if (ms <= 0) return;
  timespec span{ms / 1000, static_cast<long>(ms % 1000) * 1'000'000L};
  while (nanosleep(&span, &span) != 0 && errno == EINTR) {
  }
}

void delayms(int ms) {
  if (ms <= 0) return;
  if (kBlockingWaits) {
    PauseMs(ms);
    return;
  }
  const double end = ClockMs() + ms;
  while (ClockMs() < end) sched_yield();
}

}  // namespace zeltocom
