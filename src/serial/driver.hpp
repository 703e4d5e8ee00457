#pragma once

#include <atomic>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "frame/clock.hpp"
#include "frame/serial_line.hpp"
#include "zeltocom.h"

namespace zeltocom {

// The outcome of one wait for an answer.
struct t_comresponse {
  TimeoutMs elapsedMs = 0;  // since the last byte (or the start); >= the time-out means late
  std::string data;
  bool syntaxError = false;
};

// The longest answer a wait takes in; a longer one ends it ("Answer too long").
inline constexpr std::size_t kMaxAnswerBytes = ZELTOCOM_MAX_ANSWER_LENGTH;

// How much longer than its time-out a wait may take at the most while bytes
// keep coming, however fast; tests and benchmarks may shorten it.
inline constexpr double kStreamAllowanceMs = 30000;
void SetStreamAllowanceMs(double ms);

// RS232OpenPort's result when another process holds the port.
inline constexpr int kPortBusy = -1;

// Opens `path` raw at `baud`, for this process alone (an exclusive advisory
// lock and, where the device allows it, exclusive mode). 1 when open and
// configured; kPortBusy when another process uses the port; else 0. On
// failure the descriptor is closed again.
int RS232OpenPort(SerialLine& line, const std::string& path, int baud);
// Custom divisor, arbitrary rate (termios2), and the fixed 57600 fallback: 0 or -1.
int SetRateByCustomDivisor(int& fd, int baud);
int SetArbitraryRate(int& fd, int baud);
int SetFallbackRate57600(int& fd);

// The device number of the character device at `path` (links followed), or
// of an open descriptor; 0 when there is none.
std::uint64_t DeviceNumberOf(const std::string& path);
std::uint64_t DeviceNumberOf(int fd);

// Writes `command` followed by CR LF. First everything on the line is read
// and thrown away (into `line.dropped`), at the line's full speed, until the
// line has been quiet for a few characters' time (at least 2 ms; longer
// after a message cut short): no byte that came before the command is ever
// part of its answer. 1 when the whole line went out,
// else 0. Throws LineError when the line is gone, does not stop sending, or
// was interrupted.
int RS232SendCommand(SerialLine& line, std::string_view command);

// Collects an answer until `marker` (CR LF when empty), a line count, a quiet
// period or an idle time-out of `timeoutMs`. With `multiLine` the marker
// alone does not end the wait: `lineCount` > 0 waits for that many line
// feeds, 0 for 200 ms of quiet, < 0 for the time-out. The answer ends where
// its end was found; the bytes after it stay in `line.leftover`, and a wait
// starts with what an earlier one left there. A wait that runs out of time
// leaves the line out of step (the answer may still come). However the
// bytes come, a wait ends after its time-out plus twice the line time of
// what it received plus a second, and never later than its time-out plus
// kStreamAllowanceMs. Throws LineError when the line is gone or
// interrupted, or the answer grows beyond kMaxAnswerBytes.
void RS232WaitForData(SerialLine& line, t_comresponse* response, TimeoutMs timeoutMs,
                      std::string_view marker, bool trim, bool multiLine = false,
                      int lineCount = 0);

// A wait for bytes that may or may not come (a lone 0x04, the settling of a
// line): no answer is owed, so running out of time leaves the line in step.
void RS232WaitForStraggler(SerialLine& line, t_comresponse* response, TimeoutMs timeoutMs,
                           std::string_view marker);

// Waits for the message an instrument sends unasked once its trigger input
// fired: as long as it takes for the first byte, then until `terminator`
// (with `dataExpected`, until `lineCount` line feeds as well) or 100 ms of
// quiet. Sleeps in poll() on the line and on `wakeFd`; a ring of `wakeFd`
// with `abortFlag` set ends it at once. True when a message ended (its line
// end trimmed, its syntax-error flag set); false when aborted, or when the
// line failed (then the text says why).
bool RS232WaitForExternalCapture(int fd, int wakeFd, t_comresponse* response,
                                 const std::atomic<bool>& abortFlag, std::string_view terminator,
                                 bool dataExpected, int lineCount);

void PurgePort(SerialLine& line);
int RS232_FlushBuffers(SerialLine& line);
// Discards both queues, gives up the exclusive access and closes.
int RS232ClosePort(SerialLine& line);

}  // namespace zeltocom
