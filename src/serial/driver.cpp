#include "serial/driver.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cmath>
#include <utility>

#include "frame/clock.hpp"
#include "serial/baudrates.hpp"
#include "serial/line_flags.hpp"
#include "serial/termios2.hpp"

namespace zeltocom {

namespace {

enum class Way { Applied, Failed, Unavailable };

// How long stale input is drained before a command, at most.
constexpr double kDrainLimitMs = 1000;

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
  t.c_iflag &= ~(IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON);
  t.c_oflag &= ~OPOST;
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
  if (RS232ChangeBaudrate1(fd, baud) != 0 || tcgetattr(fd, &t) != 0) return Way::Unavailable;
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
  if (RS232ChangeBaudrate2(fd, baud) != 0) return Way::Unavailable;
  const int result = ApplyRawArbitraryRate(fd);
  if (result < 0) return Way::Unavailable;
  return result == 0 ? Way::Failed : Way::Applied;
}

Way ConfigureFallback(int& fd) {
  termios t{};
  if (RS232ChangeBaudrate3(fd) != 0 || tcgetattr(fd, &t) != 0) return Way::Failed;
  SetInstrumentLineFlags(t, true);
  t.c_cc[VTIME] = 0;
  t.c_cc[VMIN] = 0;
  cfmakeraw(&t);
  tcflush(fd, TCIFLUSH);
  return tcsetattr(fd, TCSANOW, &t) == 0 ? Way::Applied : Way::Failed;
}

int CloseAndFail(int fd, int result = 0) {
  close(fd);
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
  if (both[1].revents != 0) return Intake{0, false, true};
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

void DiscardPendingInput(int fd) {
  int waiting = 0;
  if (ioctl(fd, FIONREAD, &waiting) != 0 || waiting <= 0) return;
  const double giveUp = ClockMs() + kDrainLimitMs;
  char scratch[1024];
  for (;;) {
    const Intake in = ReadAvailable(fd, scratch, sizeof scratch, 0);
    if (in.gone) throw LineError("Device disconnected");
    if (in.bytes == 0) return;
    if (ClockMs() > giveUp) throw LineError("The line does not stop sending");
    delayms(10);
  }
}

// Looks at each received byte once: end marker, syntax-error replies and
// line feeds are found in the new bytes only (with the few bytes before them
// that a match may start in).
class AnswerScanner {
 public:
  explicit AnswerScanner(std::string_view marker)
      : marker_(marker),
        syntaxError1_("SYNTAX ERROR" + marker_),
        syntaxError2_("ERROR: SYNTAX" + marker_) {}

  void Scan(const std::string& text, std::size_t newFrom) {
    const std::string_view added = std::string_view(text).substr(newFrom);
    lineFeeds_ += static_cast<int>(std::ranges::count(added, '\n'));
    if (!markerSeen_) markerSeen_ = FoundSince(text, marker_, newFrom);
    if (text.size() > 13 && !syntaxError_) {
      syntaxError_ =
          FoundSince(text, syntaxError1_, newFrom) || FoundSince(text, syntaxError2_, newFrom);
    }
  }
  bool markerSeen() const { return markerSeen_; }
  bool syntaxError() const { return syntaxError_; }
  int lineFeeds() const { return lineFeeds_; }

 private:
  static bool FoundSince(const std::string& text, const std::string& what, std::size_t newFrom) {
    const std::size_t from = newFrom >= what.size() ? newFrom - what.size() + 1 : 0;
    return text.find(what, from) != std::string::npos;
  }

  std::string marker_;
  std::string syntaxError1_;
  std::string syntaxError2_;
  bool markerSeen_ = false;
  bool syntaxError_ = false;
  int lineFeeds_ = 0;
};

double LineCharTimeMs(int fd) {
  const int baud = LineBaudrate(fd);
  return CharTimeMs(baud > 0 ? baud : 9600);
}

int WaitSliceMs(double untilMs) {
  const double left = std::ceil(untilMs - ClockMs()) + 1;
  return static_cast<int>(std::clamp(left, 0.0, static_cast<double>(INT_MAX)));
}

}  // namespace

int RS232OpenPort(int& fd, const std::string& path, int baud) {
  fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) return errno == EBUSY ? kPortBusy : 0;
  if (!ClaimExclusively(fd)) return CloseAndFail(fd, kPortBusy);
  SetLowLatency(fd);

  Way way = ConfigureStandardSpeed(fd, baud);
  if (way == Way::Unavailable) way = ConfigureCustomDivisor(fd, baud);
  if (way == Way::Applied) return 1;
  if (way == Way::Failed) return CloseAndFail(fd);

  // The arbitrary rate goes on to the fallback even when it worked: the
  // fallback sets the line once more.
  if (ConfigureArbitraryRate(fd, baud) == Way::Failed) return CloseAndFail(fd);
  if (ConfigureFallback(fd) == Way::Applied) return 1;
  return CloseAndFail(fd);
}

int RS232ChangeBaudrate3(int& fd) {
  termios t{};
  if (tcgetattr(fd, &t) != 0) return -1;
  cfsetispeed(&t, B57600);
  cfsetospeed(&t, B57600);
  return tcsetattr(fd, TCSANOW, &t) == 0 ? 0 : -1;
}

int RS232SendCommand(int& fd, std::string_view command) {
  DiscardPendingInput(fd);

  std::string line(command);
  line += "\r\n";
  tcflush(fd, TCIOFLUSH);

  std::size_t written = 0;
  int failures = 0;
  while (written < line.size()) {
    const ssize_t n = write(fd, line.data() + written, line.size() - written);
    if (n > 0) {
      written += static_cast<std::size_t>(n);
      continue;
    }
    if (n < 0 && LineGoneError(errno)) throw LineError("Device disconnected");
    delayms(2);
    if (++failures >= 30) return 0;
  }
  tcdrain(fd);
  return 1;
}

void TrimAnswerEnd(std::string& text) {
  while (!text.empty() && (text.back() == '\x04' || text.back() == '\n' || text.back() == '\r')) {
    text.pop_back();
  }
}

int RS232WaitForData(int& fd, t_comresponse* response, long timeoutMs, std::string_view marker,
                     bool trim, bool multiLine, int lineCount) {
  // The end text is waited for whole, however it arrives.
  AnswerScanner scan(marker.empty() ? std::string_view("\r\n") : marker);
  std::string& text = response->data;
  text.clear();
  response->elapsedMs = 0;
  response->syntaxError = false;

  const bool blocking = BlockingWaits();
  const double lineTimeMs = LineCharTimeMs(fd);
  const double begin = ClockMs();
  double lastByte = begin;
  double elapsed = 0;
  bool late = false;
  // Reads start small and grow with the answer, so that short replies are
  // not over-read and long ones arrive in few calls.
  std::size_t capacity = 100;
  std::size_t readSize = 20;
  char chunk[250];
  // Generous for any legitimate answer, finite for a line that keeps
  // trickling or streaming.
  const auto capMs = [&] {
    return static_cast<double>(timeoutMs) + 2 * lineTimeMs * static_cast<double>(text.size()) +
           1000;
  };
  for (;;) {
    const bool quietEnds = !text.empty() && (scan.markerSeen() || multiLine) && lineCount == 0;
    double until = std::min(lastByte + static_cast<double>(timeoutMs), begin + capMs());
    if (quietEnds) until = std::min(until, lastByte + 200);
    const Intake in = ReadAvailable(fd, chunk, readSize, blocking && !late ? WaitSliceMs(until) : 0);
    if (in.gone) throw LineError("Device disconnected");
    const double now = ClockMs();
    if (in.bytes > 0) {
      const std::size_t newFrom = text.size();
      text.append(chunk, in.bytes);
      if (text.size() > kMaxAnswerBytes) throw LineError("Answer too long");
      scan.Scan(text, newFrom);
      lastByte = now;
      late = false;
      if (text.size() >= capacity - 1 - readSize) {
        readSize = readSize < 200 ? readSize + 50 : 250;
        capacity += capacity <= 511 ? 512 : 1024;
      }
    } else if (!blocking) {
      // Still polling, but let the instruments' side and other ports'
      // workers run first when they are waiting for this processor.
      sched_yield();
    }
    elapsed = now - lastByte;
    if (scan.syntaxError()) {
      response->syntaxError = true;
      break;
    }
    if (!text.empty()) {
      if (scan.markerSeen() && !multiLine) break;
      if (scan.markerSeen() || multiLine) {
        if (lineCount > 0 && scan.lineFeeds() >= lineCount) break;
        if (lineCount == 0 && elapsed > 200) break;
      }
    }
    if (now - begin > capMs()) {
      elapsed = std::max(elapsed, static_cast<double>(timeoutMs));
      break;
    }
    if (elapsed > timeoutMs) {
      if (late) break;
      late = true;
    }
  }

  if (trim && !text.empty()) TrimAnswerEnd(text);
  response->elapsedMs = static_cast<int64_t>(elapsed);
  return 1;
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

bool WaitForTriggerMessage(int fd, int wakeFd, t_comresponse* response,
                           const std::atomic<bool>& abortFlag, std::string_view terminator,
                           bool dataExpected, int lineCount) {
  AnswerScanner scan(terminator);
  std::string& text = response->data;
  text.clear();
  response->elapsedMs = 0;
  response->syntaxError = false;
  double lastByte = 0;
  // The quiet counts once it is seen on two looks in a row.
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
    const double now = WallClockMs();
    if (in.bytes == 0) {
      if (!text.empty() && now - lastByte >= kTriggerQuietMs) {
        if (quietSeen) break;
        quietSeen = true;
      }
      if (abortFlag) return false;
      continue;
    }
    const std::size_t newFrom = text.size();
    text.append(chunk, in.bytes);
    if (text.size() > kMaxAnswerBytes) throw LineError("Answer too long");
    scan.Scan(text, newFrom);
    lastByte = now;
    quietSeen = false;
    if (scan.syntaxError()) {
      response->syntaxError = true;
      break;
    }
    if (TriggerMessageEnded(scan, dataExpected, lineCount)) break;
    if (abortFlag) return false;
  }
  response->elapsedMs = static_cast<int64_t>(WallClockMs() - lastByte);
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

void PurgePort(int& fd) {
  tcflush(fd, TCIOFLUSH);
  tcdrain(fd);
  termios unused{};
  tcgetattr(fd, &unused);
}

int RS232_FlushBuffers(int& fd) { return tcflush(fd, TCIOFLUSH); }

int RS232ClosePort(int& fd) {
  PurgePort(fd);
  ioctl(fd, TIOCNXCL);
  const int result = close(fd);  // also releases the advisory lock
  fd = -1;
  return result;
}

}  // namespace zeltocom
