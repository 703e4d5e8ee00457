#include "serial/driver.hpp"

#include <fcntl.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <thread>
#include <utility>

#include "frame/clock.hpp"
#include "frame/registry.hpp"
#include "frame/utils.hpp"
#include "serial/line_flags.hpp"
#include "serial/termios2.hpp"

namespace zeltocom {

namespace {

enum class Way { Applied, Failed, Unavailable };

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

int CloseAndFail(int fd) {
  close(fd);
  return 0;
}

// Any write ends a trigger listen on the same line: the listener must not
// read the answer meant for this command.
void StopTriggerListenerOf(int& fd) {
  s_CommPort* port = PortsList_GetByHandler(fd);
  if (port == nullptr || !port->triggerThread || port->triggerState != 1) return;
  if (port->triggerThread->get_id() == std::this_thread::get_id()) return;
  port->triggerAbort = true;
  if (port->triggerThread->joinable()) port->triggerThread->join();
  while (port->triggerState == 1) {
  }
  PurgePort(fd);
}

void DiscardPendingInput(int fd) {
  int waiting = 0;
  if (ioctl(fd, FIONREAD, &waiting) != 0 || waiting <= 0) return;
  char scratch[40];
  while (read(fd, scratch, sizeof scratch) > 0) delayms(10);
}

}  // namespace

int RS232OpenPort(int& fd, const std::string& path, int baud) {
  fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) return 0;

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
  StopTriggerListenerOf(fd);
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
  const std::string end = marker.empty() ? std::string("\r\n") : std::string(marker.substr(0, 9));
  const std::string syntaxError1 = "SYNTAX ERROR" + end;
  const std::string syntaxError2 = "ERROR: SYNTAX" + end;
  std::string& text = response->data;
  text.clear();
  response->elapsedMs = 0;
  response->syntaxError = false;

  // Reads start small and grow with the answer, so that short replies are
  // not over-read and long spectra arrive in few calls.
  std::size_t capacity = 100;
  std::size_t readSize = 20;
  char chunk[250];
  bool markerSeen = false;
  bool late = false;
  double start = ClockMs();
  double elapsed = 0;
  for (;;) {
    const ssize_t n = read(fd, chunk, readSize);
    if (n > 0) {
      text.append(chunk, static_cast<std::size_t>(n));
      start = ClockMs();
      late = false;
      if (text.size() >= capacity - 1 - readSize) {
        readSize = readSize < 200 ? readSize + 50 : 250;
        capacity += capacity <= 511 ? 512 : 1024;
      }
      if (text.size() > 13 && (Contains(text, syntaxError1) || Contains(text, syntaxError2))) {
        response->syntaxError = true;
        elapsed = ClockMs() - start;
        break;
      }
      markerSeen = Contains(text, end);
    } else {
      // Still polling, but let the instruments' side and other ports' workers
      // run first when they are waiting for this processor.
      sched_yield();
    }
    elapsed = ClockMs() - start;
    if (!text.empty()) {
      if (markerSeen && !multiLine) break;
      if (markerSeen || multiLine) {
        if (lineCount > 0 && strcountchar(text, '\n') >= lineCount) break;
        if (lineCount == 0 && elapsed > 200) break;
      }
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

void PurgePort(int& fd) {
  tcflush(fd, TCIOFLUSH);
  tcdrain(fd);
  termios unused{};
  tcgetattr(fd, &unused);
}

int RS232_FlushBuffers(int& fd) { return tcflush(fd, TCIOFLUSH); }

int RS232ClosePort(int& fd) {
  PurgePort(fd);
  const int result = close(fd);
  fd = -1;
  return result;
}

}  // namespace zeltocom
