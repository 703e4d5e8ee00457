#include "frame/clock.hpp"

#include <sched.h>

#include <ctime>

namespace zeltocom {

double ClockMs() {
  return static_cast<double>(std::clock()) * 1000.0 / CLOCKS_PER_SEC;
}

void delayms(int ms) {
  const double end = ClockMs() + ms;
  while (ClockMs() < end) sched_yield();
}

}  // namespace zeltocom
