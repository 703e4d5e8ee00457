#pragma once

#include <atomic>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace zeltocom {

// The outcome of one wait for an answer.
struct t_comresponse {
  int64_t elapsedMs = 0;  // since the last byte (or the start); >= the time-out means late
  std::string data;
  bool syntaxError = false;
};

// A line that cannot carry an exchange any more: unplugged, sending without
// pause, or answering without end. Thrown by the driver; the call that was
// using the line fails with its text.
struct LineError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The longest answer a wait takes in; a longer one ends it ("Answer too long").
inline constexpr std::size_t kMaxAnswerBytes = std::size_t{1} << 20;

// RS232OpenPort's result when another process holds the port.
inline constexpr int kPortBusy = -1;

// Opens `path` raw at `baud`, for this process alone (an exclusive advisory
// lock and, where the device allows it, exclusive mode). 1 when open and
// configured; kPortBusy when another process uses the port; else 0. On
// failure the descriptor is closed again.
int RS232OpenPort(int& fd, const std::string& path, int baud);
// Custom divisor, arbitrary rate (termios2), and the fixed 57600 fallback: 0 or -1.
int RS232ChangeBaudrate1(int& fd, int baud);
int RS232ChangeBaudrate2(int& fd, int baud);
int RS232ChangeBaudrate3(int& fd);

// Writes `command` followed by CR LF after discarding whatever waits in the
// input; 1 when the whole line went out, else 0. Throws LineError when the
// line is gone or does not stop sending.
int RS232SendCommand(int& fd, std::string_view command);

// Collects an answer until `marker` (CR LF when empty), a line count, a quiet
// period or an idle time-out of `timeoutMs`. With `multiLine` the marker
// alone does not end the wait: `lineCount` > 0 waits for that many line
// feeds, 0 for 200 ms of quiet, < 0 for the time-out. A wait that goes on for
// longer than the time-out, plus twice the line time of what it received,
// plus a second, ends as late. Returns 1; throws LineError when the line is
// gone or the answer grows beyond kMaxAnswerBytes.
int RS232WaitForData(int& fd, t_comresponse* response, long timeoutMs, std::string_view marker,
                     bool trim, bool multiLine = false, int lineCount = 0);

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

void PurgePort(int& fd);
int RS232_FlushBuffers(int& fd);
// Discards both queues, gives up the exclusive access and closes.
int RS232ClosePort(int& fd);
// Serial drivers here need no event character; kept for instruments that end
// their answers with 0x04.
inline void RS232EnableEventChar(int&) {}

// Drops trailing 0x04, LF and CR.
void TrimAnswerEnd(std::string& text);

}  // namespace zeltocom
