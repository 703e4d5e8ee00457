#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zeltocom {

// The outcome of one wait for an answer.
struct t_comresponse {
  int64_t elapsedMs = 0;  // since the last byte (or the start); >= the time-out means late
  std::string data;
  bool syntaxError = false;
};

// Opens `path` raw at `baud`; 1 when open and configured, else 0 with the
// descriptor closed again.
int RS232OpenPort(int& fd, const std::string& path, int baud);
// Custom divisor, arbitrary rate (termios2), and the fixed 57600 fallback: 0 or -1.
int RS232ChangeBaudrate1(int& fd, int baud);
int RS232ChangeBaudrate2(int& fd, int baud);
int RS232ChangeBaudrate3(int& fd);

// Writes `command` followed by CR LF after discarding whatever waits in the
// input; 1 when the whole line went out.
int RS232SendCommand(int& fd, std::string_view command);

// Collects an answer until `marker` (CR LF when empty), a line count, a quiet
// period or an idle time-out of `timeoutMs`. With `multiLine` the marker
// alone does not end the wait: `lineCount` > 0 waits for that many line
// feeds, 0 for 200 ms of quiet, < 0 for the time-out. Returns 1 (0 only when
// no memory could be had).
int RS232WaitForData(int& fd, t_comresponse* response, long timeoutMs, std::string_view marker,
                     bool trim, bool multiLine = false, int lineCount = 0);

void PurgePort(int& fd);
int RS232_FlushBuffers(int& fd);
int RS232ClosePort(int& fd);
// Serial drivers here need no event character; kept for instruments that end
// their answers with 0x04.
inline void RS232EnableEventChar(int&) {}

// Drops trailing 0x04, LF and CR.
void TrimAnswerEnd(std::string& text);

}  // namespace zeltocom
