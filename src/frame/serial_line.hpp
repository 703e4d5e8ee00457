#pragma once

#include <atomic>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace zeltocom {

// A line that cannot carry an exchange any more: unplugged, sending without
// pause, answering without end, closed by another thread, or out of step
// for good. Thrown by the driver and the exchange; the call that was using
// the line fails with its text.
struct LineError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

inline constexpr const char* kClosedDuringExchange = "The port was closed during the exchange";

// One serial line as the library drives it: its descriptor and what the
// library knows about the bytes on it. Shared by a master's record and the
// records of the instruments chained behind it.
//
// Everything but the interruption and the counter belongs to whoever holds
// the line (LockLine) or, before a port is registered, to the thread that
// opened it.
class SerialLine {
 public:
  SerialLine();
  ~SerialLine();
  SerialLine(const SerialLine&) = delete;
  SerialLine& operator=(const SerialLine&) = delete;

  int fd = -1;       // -1 once closed
  std::string path;  // as the line was opened; for the trace
  // A wait ended before the answer it waited for: that answer may still
  // come, so the next command must first bring the line back in step.
  bool outOfStep = false;
  // Answers to "GETSERIAL" that the instrument still owes (one that timed
  // out, or a resynchronisation of its own that did).
  int owedSerials = 0;
  // Bringing the line back in step failed during the call that holds the
  // line now; it is not tried again before the next call.
  bool resyncFailed = false;
  // The last command was not written, as the line could not be brought in
  // step: the waits for its answer end at once, late.
  bool commandHeldBack = false;
  // The last command written, for judging what a late answer may be.
  std::string lastCommand;
  // Bytes that came after the end of the last answer, in the same read: the
  // beginning of whatever the instrument sent next.
  std::string leftover;
  // What was thrown away before the last command (its last 64 KiB), so that
  // unasked messages among it are not lost.
  std::string dropped;
  // Monotonic time (ms) of the last byte that belonged to no answer.
  double lastStrayMs = -1.0e18;

  // Called from any thread by whoever closes the port: the exchange in
  // progress, and every later one, ends at once.
  void Interrupt();
  bool interrupted() const { return interrupted_.load(); }
  // Readable once Interrupt was called; -1 when it could not be made.
  int interruptFd() const { return interruptFd_; }

  // How often the line was brought back in step; for tests and benchmarks.
  std::atomic<std::uint64_t> resyncs{0};

 private:
  std::atomic<bool> interrupted_{false};
  const int interruptFd_;
};

}  // namespace zeltocom
