#include "serial/driver.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdint>
#include <memory>
#include <utility>

#include "frame/clock.hpp"
#include "frame/utils.hpp"
#include "serial/baudrates.hpp"
#include "serial/line_flags.hpp"
#include "serial/termios2.hpp"

namespace zeltocom {

namespace {

enum class Way { Applied, Failed, Unavailable };

std::atomic<double> streamAllowanceMs{kStreamAllowanceMs};

speed_t StandardSpeedCode(int baud) {
  static constexpr std::array<std::pair<int, speed_t>, 8> kCodes = {{
      {9600, B9600},
      {19200, B19200},
      {38400, B38400},
      {57600, B57600},
      {115200, B115200},
      {230400, B230400},
      {460800, B460800},
      {921600, B921600},
  }};
  for (const auto& [rate, code] : kCodes) {
    if (rate == baud) return code;
  }
  return B0;
}

bool SameSettings(const termios& a, const termios& b) {
  return a.c_iflag == b.c_iflag && a.c_oflag == b.c_oflag && a.c_cflag == b.c_cflag &&
         a.c_lflag == b.c_lflag && a.c_cc[VTIME] == b.c_cc[VTIME] && a.c_cc[VMIN] == b.c_cc[VMIN];
}

// Some USB serial drivers apply new settings a little later than tcsetattr
// returns; wait (up to about a second) until they read back.
void CheckTtyChangesApplied(int fd, const termios& wanted) {
  for (int pass = 0; pass < 200; ++pass) {
    termios now{};
    if (tcgetattr(fd, &now) != 0) {
      delayms(10);
    } else if (SameSettings(now, wanted)) {
      return;
    } else {
      delayms(5);
    }
  }
}

Way ConfigureStandardSpeed(int fd, int baud) {
  termios t{};
  if (tcgetattr(fd, &t) != 0) return Way::Unavailable;
  t.c_cflag = StandardSpeedCode(baud) | CS8 | CREAD | CLOCAL;
  t.c_iflag &= ~tcflag_t{IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON};
  t.c_oflag &= ~tcflag_t{OPOST};
  t.c_lflag = 0;
  t.c_cc[VTIME] = 5;
  t.c_cc[VMIN] = 1;
  cfmakeraw(&t);
  if (tcflush(fd, TCIOFLUSH) != 0 || tcsetattr(fd, TCSANOW, &t) != 0) return Way::Failed;
  CheckTtyChangesApplied(fd, t);
  return Way::Applied;
}

Way ConfigureCustomDivisor(int& fd, int baud) {
  termios t{};
  if (SetRateByCustomDivisor(fd, baud) != 0 || tcgetattr(fd, &t) != 0) return Way::Unavailable;
  SetInstrumentLineFlags(t, true);
  t.c_cc[VTIME] = 5;
  t.c_cc[VMIN] = 0;
  cfmakeraw(&t);
  tcflush(fd, TCIFLUSH);
  if (tcsetattr(fd, TCSANOW, &t) != 0) return Way::Failed;
  delayms(5);
  CheckTtyChangesApplied(fd, t);
  return Way::Applied;
}

Way ConfigureArbitraryRate(int& fd, int baud) {
  if (SetArbitraryRate(fd, baud) != 0) return Way::Unavailable;
  const int result = ApplyRawArbitraryRate(fd);
  if (result < 0) return Way::Unavailable;
  return result == 0 ? Way::Failed : Way::Applied;
}

Way ConfigureFallback(int& fd) {
  termios t{};
  if (SetFallbackRate57600(fd) != 0 || tcgetattr(fd, &t) != 0) return Way::Failed;
  SetInstrumentLineFlags(t, true);
  t.c_cc[VTIME] = 0;
  t.c_cc[VMIN] = 0;
  cfmakeraw(&t);
  tcflush(fd, TCIFLUSH);
  return tcsetattr(fd, TCSANOW, &t) == 0 ? Way::Applied : Way::Failed;
}

// Closes a line that could not be set up; its descriptor number may be
// reused at once by another thread, so the line forgets it.
int CloseAndFail(SerialLine& line, int result = 0) {
  close(line.fd);
  line.fd = -1;
  return result;
}

// Another process that opened the port first keeps it: configuring the line
// under it would disturb its exchanges, and the two would interleave.
bool ClaimExclusively(int fd) {
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) return false;
  ioctl(fd, TIOCEXCL);  // refused by some devices; the advisory lock holds anyway
  return true;
}

bool LineGoneError(int error) { return error == EIO || error == ENXIO || error == ENODEV; }

// What one look at the line brought.
struct Intake {
  std::size_t bytes = 0;
  bool gone = false;   // hung up, unplugged or closed under us
  bool woken = false;  // the wake-up descriptor rang; nothing was read
};

// Waits up to `waitMs` (0: not at all, -1: without limit) for input, or for
// a ring of `wakeFd` when one is given, and reads what is there.
Intake ReadAvailable(int fd, char* buffer, std::size_t size, int waitMs, int wakeFd = -1) {
  pollfd both[2] = {{fd, POLLIN, 0}, {wakeFd, POLLIN, 0}};
  const int ready = poll(both, wakeFd >= 0 ? 2 : 1, waitMs);
  if (ready < 0) return Intake{0, errno != EINTR};
  if (ready == 0) return {};
  if (wakeFd >= 0 && both[1].revents != 0) return Intake{0, false, true};
  const pollfd& p = both[0];
  if ((p.revents & POLLIN) != 0) {
    const ssize_t n = read(fd, buffer, size);
    if (n > 0) return Intake{static_cast<std::size_t>(n), false};
    // Readable but nothing to read is the end of file of a hung-up line.
    if (n == 0) return Intake{0, true};
    return Intake{0, errno != EAGAIN && errno != EINTR};
  }
  return Intake{0, (p.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0};
}

// One read of a line: a ring of the line's interruption or a hang-up ends
// the exchange.
std::size_t ReadLine(SerialLine& line, char* buffer, std::size_t size, int waitMs) {
  if (line.interrupted()) throw LineError(kClosedDuringExchange);
  const Intake in = ReadAvailable(line.fd, buffer, size, waitMs, line.interruptFd());
  if (in.woken || line.interrupted()) throw LineError(kClosedDuringExchange);
  if (in.gone) throw LineError("Device disconnected");
  return in.bytes;
}

// Reads are large, so that a flood is taken at the line's full speed; the
// buffer is per thread, as host threads may have small stacks.
constexpr std::size_t kReadSize = std::size_t{64} * 1024;
char* ReadBuffer() {
  thread_local std::unique_ptr<char[]> buffer(new char[kReadSize]);
  return buffer.get();
}

double LineCharTimeMs(int fd) {
  const int baud = LineBaudrate(fd);
  return CharTimeMs(baud > 0 ? baud : 9600);
}

// How long stale input is thrown away before a command, at most.
constexpr double kDropLimitMs = 1000;

// Keeps the tail of what was thrown away: enough for any unasked message.
void KeepDropped(SerialLine& line, std::string_view bytes) {
  constexpr std::size_t kKept = std::size_t{64} * 1024;
  line.dropped.append(bytes);
  if (line.dropped.size() > kKept) line.dropped.erase(0, line.dropped.size() - kKept);
}

// Whether bytes thrown away that end with `last` end where a message ends;
// if not, the rest of it is on its way and a short pause proves nothing.
bool EndsWhole(char last) { return last == '\0' || last == '\n' || last == '\x04'; }

void DropUntilQuiet(SerialLine& line) {
  char last = '\0';
  if (!line.leftover.empty()) {
    last = line.leftover.back();
    KeepDropped(line, line.leftover);
    line.leftover.clear();
  }
  // A few characters' time: a line that pauses that long between messages
  // has stopped sending. Within a message, pauses prove less: a USB
  // adapter holds bytes back for its latency timer (16 ms by default), and
  // a sender whose buffer ran full resumes only when it notices room, so
  // the rest of a cut message is awaited longer.
  const double charMs = LineCharTimeMs(line.fd);
  const double quietMs = std::max(2.0, 4 * charMs);
  const double cutQuietMs = std::max(50.0, 20 * charMs);
  const double giveUp = WallClockMs() + kDropLimitMs;
  char* buffer = ReadBuffer();
  for (;;) {
    const double needed = EndsWhole(last) ? quietMs : cutQuietMs;
    const double quietLeft = line.lastStrayMs + needed - WallClockMs();
    const int waitMs = quietLeft > 0 ? static_cast<int>(std::ceil(quietLeft)) : 0;
    const std::size_t n = ReadLine(line, buffer, kReadSize, waitMs);
    const double now = WallClockMs();
    if (n == 0) {
      if (now - line.lastStrayMs >= needed) return;
      continue;
    }
    last = buffer[n - 1];
    KeepDropped(line, std::string_view(buffer, n));
    line.lastStrayMs = now;
    if (now > giveUp) throw LineError("The line does not stop sending");
  }
}

// Looks at each received byte once: end marker, syntax-error replies and
// line feeds are found in the new bytes only (with the few bytes before them
// that a match may start in), and where each ends is noted.
class AnswerScanner {
 public:
  static constexpr std::size_t kNone = std::string::npos;

  AnswerScanner(std::string_view marker, int lineCount)
      : marker_(marker),
        syntaxError1_("SYNTAX ERROR" + marker_),
        syntaxError2_("ERROR: SYNTAX" + marker_),
        lineCount_(lineCount) {}

  void Scan(const std::string& text, std::size_t newFrom) {
    // Line feeds are looked for with the library's memchr: a flood of bytes
    // without any is taken in at the line's full speed.
    for (std::size_t i = text.find('\n', newFrom); i != std::string::npos;
         i = text.find('\n', i + 1)) {
      if (++lineFeeds_ == lineCount_) linesEnd_ = i + 1;
    }
    if (markerEnd_ == kNone) markerEnd_ = EndSince(text, marker_, newFrom);
    // Refusals count once more than 13 bytes came: a text that held one
    // before then is looked at whole the first time.
    if (text.size() > 13 && syntaxErrorEnd_ == kNone) {
      const std::size_t from = refusalsLooked_ ? newFrom : 0;
      syntaxErrorEnd_ =
          std::min(EndSince(text, syntaxError1_, from), EndSince(text, syntaxError2_, from));
      refusalsLooked_ = true;
    }
  }
  bool markerSeen() const { return markerEnd_ != kNone; }
  bool syntaxError() const { return syntaxErrorEnd_ != kNone; }
  std::size_t markerEnd() const { return markerEnd_; }
  std::size_t syntaxErrorEnd() const { return syntaxErrorEnd_; }
  int lineFeeds() const { return lineFeeds_; }
  // Where the line feed that completed the line count ends.
  std::size_t linesEnd() const { return linesEnd_; }

 private:
  // Where the first `what` that ends in the new bytes ends, or kNone.
  static std::size_t EndSince(const std::string& text, const std::string& what,
                              std::size_t newFrom) {
    const std::size_t from = newFrom >= what.size() ? newFrom - what.size() + 1 : 0;
    const std::size_t at = text.find(what, from);
    return at == std::string::npos ? kNone : at + what.size();
  }

  std::string marker_;
  std::string syntaxError1_;
  std::string syntaxError2_;
  int lineCount_;
  std::size_t markerEnd_ = kNone;
  std::size_t syntaxErrorEnd_ = kNone;
  std::size_t linesEnd_ = kNone;
  int lineFeeds_ = 0;
  bool refusalsLooked_ = false;
};

int WaitSliceMs(double untilMs, double nowMs) {
  const double left = std::ceil(untilMs - nowMs) + 1;
  return static_cast<int>(std::clamp(left, 0.0, static_cast<double>(INT_MAX)));
}

// What a wait is for.
struct WaitPlan {
  TimeoutMs timeoutMs;
  std::string_view marker;
  bool multiLine;
  int lineCount;
  bool answerOwed;  // running out of time leaves the line out of step
};

// Where the answer in `text` ends, when the wait has seen its end; `quiet`
// says how long the line has been silent. A one-line answer ends at its
// first marker, a refusal included; a longer one at its last line or at a
// refusal before it, whichever comes first, however the reads were split.
std::size_t AnswerEnd(const AnswerScanner& scan, const std::string& text, const WaitPlan& plan,
                      double quiet) {
  if (text.empty()) return AnswerScanner::kNone;
  if (!plan.multiLine) return scan.markerEnd();
  if (plan.lineCount > 0) return std::min(scan.syntaxErrorEnd(), scan.linesEnd());
  if (scan.syntaxErrorEnd() != AnswerScanner::kNone) return scan.syntaxErrorEnd();
  if (plan.lineCount == 0 && quiet > 200) return text.size();
  return AnswerScanner::kNone;
}

// Adds `n` bytes just read to the answer; LineError when it grows too long.
void TakeIn(SerialLine& line, std::string& text, AnswerScanner& scan, const char* bytes,
            std::size_t n) {
  const std::size_t newFrom = text.size();
  text.append(bytes, n);
  if (text.size() > kMaxAnswerBytes) {
    line.outOfStep = true;
    throw LineError("Answer too long");
  }
  scan.Scan(text, newFrom);
}

// Ends the answer where its end was found, leaving what came after it for
// the next wait; without an end, an owed answer leaves the line out of step.
void CloseAnswer(SerialLine& line, t_comresponse* response, const AnswerScanner& scan,
                 std::size_t end, const WaitPlan& plan, double lastByteWall) {
  std::string& text = response->data;
  if (end == AnswerScanner::kNone) {
    if (plan.answerOwed) line.outOfStep = true;
    return;
  }
  response->syntaxError = scan.syntaxErrorEnd() <= end;
  if (end >= text.size()) return;
  line.leftover = text.substr(end);
  // A lone 0x04 after a line end closes the message just read; anything
  // else is the start of the next one.
  if (line.leftover != "\x04") line.lastStrayMs = lastByteWall;
  text.resize(end);
}

void Collect(SerialLine& line, t_comresponse* response, const WaitPlan& plan, bool trim) {
  const std::string_view marker = plan.marker.empty() ? std::string_view("\r\n") : plan.marker;
  AnswerScanner scan(marker, plan.multiLine ? plan.lineCount : 0);
  std::string& text = response->data;
  text = std::move(line.leftover);
  line.leftover.clear();
  response->elapsedMs = 0;
  response->syntaxError = false;
  scan.Scan(text, 0);

  const auto timeout = static_cast<double>(plan.timeoutMs);
  const bool blocking = BlockingWaits();
  const double lineTimeMs = LineCharTimeMs(line.fd);
  const double wallBegin = WallClockMs();
  double lastByte = ClockMs();
  double lastByteWall = wallBegin;
  double elapsed = 0;
  bool late = false;
  // An answer far slower than its line is cut; a line that streams at its
  // full rate without an end is cut by the allowance.
  const auto capMs = [&] {
    const double lineTime = 2 * lineTimeMs * static_cast<double>(text.size()) + 1000;
    return timeout + std::min(lineTime, streamAllowanceMs.load());
  };
  char* buffer = ReadBuffer();
  std::size_t end = AnswerEnd(scan, text, plan, elapsed);
  while (end == AnswerScanner::kNone) {
    const double wallNow = WallClockMs();
    if (wallNow - wallBegin > capMs() ||
        (!blocking && wallNow - lastByteWall > BusyWaitWallLimitMs(timeout))) {
      elapsed = std::max(elapsed, timeout);
      break;
    }
    if (elapsed > timeout) {
      if (late) break;
      late = true;  // one more look at the line after the time-out
    }
    // Busy waits only look; blocking ones sleep until the time-out, the
    // bound or the quiet that would end the answer.
    int waitMs = 0;
    if (blocking && !late) {
      const bool quietEnds =
          !text.empty() && (scan.markerSeen() || plan.multiLine) && plan.lineCount == 0;
      const double until = std::min({lastByte + timeout, wallBegin + capMs(),
                                     quietEnds ? lastByte + 200 : lastByte + timeout});
      waitMs = WaitSliceMs(until, wallNow);
    }
    const std::size_t n = ReadLine(line, buffer, kReadSize, waitMs);
    const double now = ClockMs();
    if (n > 0) {
      TakeIn(line, text, scan, buffer, n);
      lastByte = now;
      lastByteWall = WallClockMs();
      late = false;
    } else if (!blocking) {
      // Still polling, but let the instruments' side and other ports'
      // workers run first when they are waiting for this processor.
      sched_yield();
    }
    elapsed = now - lastByte;
    end = AnswerEnd(scan, text, plan, elapsed);
  }

  CloseAnswer(line, response, scan, end, plan, lastByteWall);
  if (trim) TrimAnswerEnd(text);
  response->elapsedMs = static_cast<TimeoutMs>(elapsed);
}

}  // namespace

int RS232OpenPort(SerialLine& line, const std::string& path, int baud) {
  line.path = path;
  line.fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (line.fd < 0) {
    const bool busy = errno == EBUSY;
    line.fd = -1;
    return busy ? kPortBusy : 0;
  }
  if (!ClaimExclusively(line.fd)) return CloseAndFail(line, kPortBusy);
  SetLowLatency(line.fd);

  Way way = ConfigureStandardSpeed(line.fd, baud);
  if (way == Way::Unavailable) way = ConfigureCustomDivisor(line.fd, baud);
  if (way == Way::Applied) return 1;
  if (way == Way::Failed) return CloseAndFail(line);

  // The arbitrary rate goes on to the fallback even when it worked: the
  // fallback sets the line once more.
  if (ConfigureArbitraryRate(line.fd, baud) == Way::Failed) return CloseAndFail(line);
  if (ConfigureFallback(line.fd) == Way::Applied) return 1;
  return CloseAndFail(line);
}

int SetFallbackRate57600(int& fd) {
  termios t{};
  if (tcgetattr(fd, &t) != 0) return -1;
  cfsetispeed(&t, B57600);
  cfsetospeed(&t, B57600);
  return tcsetattr(fd, TCSANOW, &t) == 0 ? 0 : -1;
}

std::uint64_t DeviceNumberOf(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0 || !S_ISCHR(info.st_mode)) return 0;
  return static_cast<std::uint64_t>(info.st_rdev);
}

std::uint64_t DeviceNumberOf(int fd) {
  struct stat info {};
  if (fstat(fd, &info) != 0 || !S_ISCHR(info.st_mode)) return 0;
  return static_cast<std::uint64_t>(info.st_rdev);
}

void SetStreamAllowanceMs(double ms) { streamAllowanceMs = ms; }

int RS232SendCommand(SerialLine& line, std::string_view command) {
  DropUntilQuiet(line);

  // No flush of the input here: it could drop the first half of a message
  // whose second half then arrives, and passes for an answer.
  std::string text(command);
  text += "\r\n";

  std::size_t written = 0;
  int failures = 0;
  while (written < text.size()) {
    const ssize_t n = write(line.fd, text.data() + written, text.size() - written);
    if (n > 0) {
      written += static_cast<std::size_t>(n);
      continue;
    }
    if (n < 0 && LineGoneError(errno)) throw LineError("Device disconnected");
    if (line.interrupted()) throw LineError(kClosedDuringExchange);
    PauseMs(2);
    if (++failures >= 30) return 0;
  }
  tcdrain(line.fd);
  return 1;
}

void RS232WaitForData(SerialLine& line, t_comresponse* response, TimeoutMs timeoutMs,
                      std::string_view marker, bool trim, bool multiLine, int lineCount) {
  Collect(line, response, WaitPlan{timeoutMs, marker, multiLine, lineCount, true}, trim);
}

void RS232WaitForStraggler(SerialLine& line, t_comresponse* response, TimeoutMs timeoutMs,
                           std::string_view marker) {
  Collect(line, response, WaitPlan{timeoutMs, marker, false, 0, false}, false);
}

namespace {

constexpr double kTriggerQuietMs = 100;

// Empties the wake-up counter: a ring without the abort flag is a stale one.
void ClearWake(int wakeFd) {
  uint64_t count = 0;
  [[maybe_unused]] const ssize_t n = read(wakeFd, &count, sizeof count);
}

bool TriggerMessageEnded(const AnswerScanner& scan, bool dataExpected, int lineCount) {
  if (!scan.markerSeen()) return false;
  return !dataExpected || (lineCount > 0 && scan.lineFeeds() >= lineCount);
}

// Milliseconds until the line has been quiet long enough after `lastByte`.
int QuietLeftMs(double lastByte) {
  return static_cast<int>(std::max(0.0, std::ceil(lastByte + kTriggerQuietMs - WallClockMs())));
}

// After a look that read nothing: true once the message that began has been
// followed by quiet long enough, seen on two looks in a row.
bool TriggerQuietEnds(bool begun, double lastByte, bool& quietSeen) {
  if (!begun || WallClockMs() - lastByte < kTriggerQuietMs) return false;
  if (quietSeen) return true;
  quietSeen = true;
  return false;
}

// Adds bytes of the trigger's message; true when they end it (a refusal
// ends it too).
bool TriggerBytesEnd(t_comresponse* response, AnswerScanner& scan, const char* bytes, std::size_t n,
                     bool dataExpected, int lineCount) {
  std::string& text = response->data;
  const std::size_t newFrom = text.size();
  text.append(bytes, n);
  if (text.size() > kMaxAnswerBytes) throw LineError("Answer too long");
  scan.Scan(text, newFrom);
  response->syntaxError = scan.syntaxError();
  return response->syntaxError || TriggerMessageEnded(scan, dataExpected, lineCount);
}

bool WaitForTriggerMessage(int fd, int wakeFd, t_comresponse* response,
                           const std::atomic<bool>& abortFlag, std::string_view terminator,
                           bool dataExpected, int lineCount) {
  AnswerScanner scan(terminator, 0);
  std::string& text = response->data;
  text.clear();
  response->elapsedMs = 0;
  response->syntaxError = false;
  double lastByte = 0;
  bool quietSeen = false;
  char chunk[256];
  for (;;) {
    int waitMs = -1;  // the trigger may take any time
    if (!text.empty()) waitMs = quietSeen ? 0 : QuietLeftMs(lastByte);
    const Intake in = ReadAvailable(fd, chunk, sizeof chunk, waitMs, wakeFd);
    if (in.gone) throw LineError("Device disconnected");
    if (in.woken) {
      ClearWake(wakeFd);
      if (abortFlag) return false;
      continue;
    }
    if (in.bytes == 0) {
      if (TriggerQuietEnds(!text.empty(), lastByte, quietSeen)) break;
      if (abortFlag) return false;
      continue;
    }
    lastByte = WallClockMs();
    quietSeen = false;
    if (TriggerBytesEnd(response, scan, chunk, in.bytes, dataExpected, lineCount)) break;
    if (abortFlag) return false;
  }
  response->elapsedMs = static_cast<TimeoutMs>(WallClockMs() - lastByte);
  TrimAnswerEnd(text);
  return true;
}

}  // namespace

bool RS232WaitForExternalCapture(int fd, int wakeFd, t_comresponse* response,
                                 const std::atomic<bool>& abortFlag, std::string_view terminator,
                                 bool dataExpected, int lineCount) {
  try {
    return WaitForTriggerMessage(fd, wakeFd, response, abortFlag, terminator, dataExpected,
                                 lineCount);
  } catch (const std::exception& e) {
    response->data = e.what();
    return false;
  }
}

void PurgePort(SerialLine& line) {
  tcflush(line.fd, TCIOFLUSH);
  tcdrain(line.fd);
  termios unused{};
  tcgetattr(line.fd, &unused);
  line.leftover.clear();
}

int RS232_FlushBuffers(SerialLine& line) {
  line.leftover.clear();
  return tcflush(line.fd, TCIOFLUSH);
}

int RS232ClosePort(SerialLine& line) {
  if (line.fd < 0) return 0;
  PurgePort(line);
  ioctl(line.fd, TIOCNXCL);
  const int result = close(line.fd);  // also releases the advisory lock
  line.fd = -1;
  return result;
}

}  // namespace zeltocom
