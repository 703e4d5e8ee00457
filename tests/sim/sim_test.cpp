// What the simulator does that the library's own tests cannot tell apart:
// for broadcast captures and stations they count any late-but-clean or early
// answer alike, and never see how bytes were grouped on the wire. And its
// trace: one line for each line an instrument receives and each burst it
// sends, by serial number, with the bytes escaped; `zeltosim --verbose` puts
// it on standard error.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/lines.hpp"
#include "zeltosim/zeltosim.hpp"

namespace {

using namespace testlines;

// The host's end of a simulated port, raw at the instruments' default rate.
class Host {
 public:
  explicit Host(const std::string& path)
      : fd_(::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK)) {
    termios raw{};
    if (fd_ < 0 || ::tcgetattr(fd_, &raw) != 0) throw std::runtime_error("cannot open " + path);
    ::cfmakeraw(&raw);
    ::cfsetspeed(&raw, B57600);
    ::tcsetattr(fd_, TCSANOW, &raw);
  }
  ~Host() { ::close(fd_); }

  std::string Ask(const std::string& command, std::chrono::milliseconds limit = 300ms,
                  const std::string& end = "\r\n") {
    Send(command + "\r\n");
    return Read(limit, end);
  }
  void Send(const std::string& bytes) { WriteTo(fd_, bytes); }
  std::string Read(std::chrono::milliseconds limit, const std::string& end = "") {
    return ReadFrom(fd_, limit, end);
  }

 private:
  int fd_;
};

zeltosim::Config Instrument(const std::string& serial, int captureMs = 0) {
  zeltosim::Config c;
  c.serial = serial;
  c.captureMs = captureMs;
  return c;
}

TEST(SimBusCapture, BroadcastStartsEveryAnalyserAndBusceWaitsForEach) {
  zeltosim::SimPort port(Instrument("M1"));
  zeltosim::Instrument& slow = port.chain(Instrument("C1", 400));
  zeltosim::Config spectro = Instrument("S1");
  spectro.hardware = "Zelto 01-W2";
  zeltosim::Instrument& spectrometer = port.chain(spectro);
  zeltosim::Instrument& refusing = port.chain(Instrument("C2"));
  refusing.setBusCapture(zeltosim::BusCapture::SyntaxError);
  Host host(port.path());

  EXPECT_EQ(host.Ask("BUSGETC2"), "OK\r\n");
  const auto started = Clock::now();
  EXPECT_EQ(host.Ask("BUSC3PWM05", 100ms), "OK\r\n");  // the master's, at once
  EXPECT_EQ(host.Ask("BUSCEC1", 200ms), "") << "answered while capturing";
  EXPECT_EQ(host.Ask("BUSCEC2"), "SYNTAX ERROR\r\n");
  EXPECT_EQ(host.Ask("BUSCENOBODY", 100ms), "");
  std::this_thread::sleep_until(started + 450ms);
  EXPECT_EQ(host.Ask("BUSCEc1"), "OK\r\n");
  EXPECT_EQ(host.Ask("BUSCES1"), "OK\r\n");

  EXPECT_EQ(port.busHolder(), "C2");
  EXPECT_EQ(slow.captures(), 1);
  EXPECT_EQ(slow.lastCaptureCommand(), "BUSC3PWM05");
  EXPECT_EQ(spectrometer.captures(), 0);
  EXPECT_EQ(port.countReceived("BUSCEC1"), 2);

  refusing.setBusCapture(zeltosim::BusCapture::NeverDone);
  EXPECT_EQ(host.Ask("BUSCEC2", 100ms), "");
  EXPECT_EQ(host.Ask("BUSC7"), "SYNTAX ERROR\r\n");
  EXPECT_EQ(slow.captures(), 1);
}

// Old firmware sends its BUSCE answer's 0x04 on its own. A loaded machine may
// read both parts at once now and then, so a few tries are allowed.
TEST(SimBusCapture, OldFirmwareSendsTheEndByteApart) {
  zeltosim::Config old = Instrument("OLD");
  old.eot = true;
  old.firmware = "F2.11";
  zeltosim::SimPort port(old);
  zeltosim::Config current = old;
  current.serial = "NEW";
  current.firmware = "F2.12";
  port.chain(current);
  Host host(port.path());

  bool apart = false;
  for (int i = 0; i < 5 && !apart; ++i) {
    const std::string answer = host.Ask("BUSCEOLD");
    apart = answer == "OK\r\n" && host.Read(100ms) == "\x04";
    if (!apart) {
      EXPECT_EQ(answer + host.Read(100ms), "OK\r\n\x04");
    }
  }
  EXPECT_TRUE(apart);
  EXPECT_EQ(host.Ask("BUSCENEW", 300ms, "\x04"), "OK\r\n\x04");
}

TEST(SimStation, StartsQuicklyWithNumberedSerials) {
  const auto start = Clock::now();
  zeltosim::Station station(8, Instrument("ZS000001"));
  EXPECT_LT(MsSince(start), 500);
  ASSERT_EQ(station.size(), 8);
  EXPECT_EQ(station.port(0).master().serial(), "ZS00000101");
  EXPECT_EQ(station.port(7).master().serial(), "ZS00000108");
  EXPECT_TRUE(station.portsVariable().ends_with(";" + station.port(7).path()));
  EXPECT_EQ(zeltosim::StationSerial("ABCDEFGHIJKLMNOP", 3), "ABCDEFGHIJKL03");
  EXPECT_THROW(station.port(8), std::out_of_range);
  EXPECT_THROW(zeltosim::Station(0), std::invalid_argument);
}

// Reads `fd` until a line starting with `start` has come; that line, or
// empty after 2 s.
std::string LineStarting(int fd, const std::string& start, std::string& pending) {
  const auto deadline = Clock::now() + 2s;
  while (Clock::now() < deadline) {
    for (std::size_t end; (end = pending.find('\n')) != std::string::npos;) {
      const std::string line = pending.substr(0, end);
      pending.erase(0, end + 1);
      if (line.starts_with(start)) return line;
    }
    pending += ReadFrom(fd, 50ms);
  }
  return "";
}

TEST(SimTrace, EachLineInAndEachBurstOutIsOneEscapedLineOfItsInstrument) {
  int trace[2];
  ASSERT_EQ(::pipe2(trace, O_CLOEXEC), 0);
  zeltosim::Config master = Instrument("ZT000001");
  master.eot = true;
  zeltosim::LineOptions line;
  line.trace = [&trace](const std::string& text) { WriteTo(trace[1], text + "\n"); };
  zeltosim::SimPort port(master, line);
  port.chain(Instrument("ZT000002"));
  Host host(port.path());

  struct Case {
    std::string sent;
    std::string answerEnd;
    std::string in;
    std::string out;
  };
  const Case cases[] = {
      {"GETSERIAL\r\n", "\x04", R"(ZT000001 <- GETSERIAL\r\n)", R"(ZT000001 -> ZT000001\r\n\x04)"},
      // The master takes the line; the chained instrument confirms.
      {"BUSGETZT000002\r\n", "\r\n", R"(ZT000001 <- BUSGETZT000002\r\n)", R"(ZT000002 -> OK\r\n)"},
      {"GET\x01\xff\\\r\n", "\r\n", R"(ZT000002 <- GET\x01\xff\\\r\n)",
       R"(ZT000002 -> SYNTAX ERROR\r\n)"},
  };
  std::string pending;
  for (const Case& c : cases) {
    host.Send(c.sent);
    EXPECT_TRUE(host.Read(500ms, c.answerEnd).ends_with(c.answerEnd)) << c.in;
    EXPECT_EQ(LineStarting(trace[0], c.in, pending), c.in);
    EXPECT_EQ(LineStarting(trace[0], c.out, pending), c.out);
  }
  ::close(trace[0]);
  ::close(trace[1]);
}

// zeltosim --verbose: the trace on standard error, standard output keeping
// the port list alone. The shell says its pid, which the simulator takes on.
TEST(SimTrace, VerboseZeltosimPrintsCommandAndAnswerOnStandardError) {
  int err[2];
  ASSERT_EQ(::pipe(err), 0);
  const std::string command = "echo $$; exec '" ZELTOSIM "' --verbose --port serial=ZV000001 "
                              "</dev/null 2>&" +
                              std::to_string(err[1]);
  FILE* sim = ::popen(command.c_str(), "r");
  ASSERT_NE(sim, nullptr);
  ::close(err[1]);
  const int out = ::fileno(sim);
  std::string stdoutText;
  std::string stderrText;
  const pid_t pid = std::atoi(LineStarting(out, "", stdoutText).c_str());
  ASSERT_GT(pid, 0);
  const std::string ports = LineStarting(out, "ZELTOCOM_PORTS=", stdoutText);
  ASSERT_FALSE(ports.empty());
  EXPECT_EQ(Host(ports.substr(ports.find('=') + 1)).Ask("GETSERIAL", 1s), "ZV000001\r\n");
  EXPECT_EQ(LineStarting(err[0], "ZV000001 <-", stderrText), R"(ZV000001 <- GETSERIAL\r\n)");
  EXPECT_EQ(LineStarting(err[0], "ZV000001 ->", stderrText), R"(ZV000001 -> ZV000001\r\n)");
  stdoutText += ReadFrom(out, 50ms);
  EXPECT_EQ(stdoutText.find("<-"), std::string::npos) << stdoutText;

  ::kill(pid, SIGTERM);
  const int status = ::pclose(sim);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  ::close(err[0]);
}

}  // namespace
