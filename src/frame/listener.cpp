#include "frame/listener.hpp"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>

namespace zeltocom {

TriggerListener::~TriggerListener() {
  Stop();
  if (wakeFd_ >= 0) close(wakeFd_);
}

void TriggerListener::Start(std::function<void()> body) {
  std::lock_guard lock(mutex_);
  // Made on first use: most ports never listen.
  if (wakeFd_ < 0) wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wakeFd_ < 0) throw std::runtime_error("Unable to start the trigger listener");
  triggerAbort = false;
  // Set before the thread runs: its final state must not be overwritten.
  triggerState = TRIGGER_LISTENING;
  try {
    thread_ = std::thread(std::move(body));
  } catch (...) {
    triggerState = TRIGGER_FAILED;
    throw;
  }
}

void TriggerListener::Stop() {
  std::lock_guard lock(mutex_);
  if (!thread_.joinable()) return;
  if (triggerState == TRIGGER_LISTENING) {
    triggerAbort = true;
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = write(wakeFd_, &one, sizeof one);
  }
  thread_.join();
}

}  // namespace zeltocom
