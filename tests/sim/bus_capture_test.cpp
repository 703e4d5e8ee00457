// What the simulator does for broadcast captures and stations that the
// library's own tests cannot tell apart: they count any late-but-clean or
// early answer alike, and never see how bytes were grouped on the wire.
#include <gtest/gtest.h>
#include <termios.h>

#include "support/lines.hpp"
#include "zeltosim/zeltosim.hpp"

namespace {

using namespace testlines;

// The host's end of a simulated port, at the instrument's default rate.
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
    WriteTo(fd_, command + "\r\n");
    return ReadFrom(fd_, limit, end);
  }
  std::string Read(std::chrono::milliseconds limit) { return ReadFrom(fd_, limit); }

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

}  // namespace
