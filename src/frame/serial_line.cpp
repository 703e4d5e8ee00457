#include "frame/serial_line.hpp"

#include <sys/eventfd.h>
#include <unistd.h>

namespace zeltocom {

SerialLine::SerialLine() : interruptFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

SerialLine::~SerialLine() {
  if (interruptFd_ >= 0) close(interruptFd_);
}

void SerialLine::Interrupt() {
  interrupted_ = true;
  if (interruptFd_ < 0) return;
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t n = write(interruptFd_, &one, sizeof one);
}

}  // namespace zeltocom
