// What the library's tests do not show of the simulator: noise at the wrong
// speed, delays and pacing, readings, and the port's life.
#include <gtest/gtest.h>

#include <memory>

#include "support/lines.hpp"
#include "zeltosim/zeltosim.hpp"

using namespace testlines;
using zeltosim::Config;
using zeltosim::Fault;
using zeltosim::Fiber;
using zeltosim::LineOptions;
using zeltosim::SimPort;
using zeltosim::WrongSpeed;

TEST(SimLine, WrongSpeedGarbageNeverLooksLikeAnAnswer) {
  SimPort port(Config{}, LineOptions{57600, WrongSpeed::Garbage, false});
  HostLine host(port.path(), B115200);
  for (int i = 0; i < 5; ++i) {
    host.send("GETSERIAL");
    const std::string noise = host.readFor(60ms);
    EXPECT_GE(noise.size(), 3u);
    EXPECT_LE(noise.size(), 8u);
    EXPECT_EQ(noise.find_first_of("\r\n\x04"), std::string::npos);
  }
  host.setSpeed(B57600);
  EXPECT_EQ(host.ask("GETSERIAL"), "ZS000001\r\n");
}

TEST(SimLine, DelaysHoldTheAnswerBack) {
  Config config;
  config.slowDelayMs = 120;
  SimPort port(config);
  HostLine host(port.path());
  port.master().setAnswerDelayMs(80);
  auto start = Clock::now();
  EXPECT_EQ(host.ask("GETSERIAL"), "ZS000001\r\n");
  EXPECT_GE(MsSince(start), 75);
  port.master().setFault(Fault::Slow);
  start = Clock::now();
  EXPECT_EQ(host.ask("GETSERIAL"), "ZS000001\r\n");
  EXPECT_GE(MsSince(start), 195);
}

TEST(SimLine, LineDelayPacesOutputAtTheRate) {
  // GETSTATUS is well over 100 characters: over 115 ms at 9600 baud.
  SimPort paced(Config{}, LineOptions{9600, WrongSpeed::Silent, true});
  HostLine host(paced.path(), B9600);
  const auto start = Clock::now();
  const std::string status = host.ask("GETSTATUS", "Logarithmic\r\n");
  const long expectedMs = static_cast<long>(status.size() * 11000 / 9600);
  EXPECT_GT(status.size(), 100u);
  EXPECT_GE(MsSince(start), expectedMs - 5);
}

TEST(SimLine, StopsPromptlyEvenInTheMiddleOfACapture) {
  auto port = std::make_unique<SimPort>(Config{});
  HostLine host(port->path());
  host.send("SETFACTOR50");
  host.send("C1");  // 45 s at full scale
  EXPECT_EQ(host.readUntil("OK\r\n"), "OK\r\n");
  const auto start = Clock::now();
  port.reset();
  EXPECT_LT(MsSince(start), 300);
}

TEST(SimLine, RefusesBadSettingsWithClearErrors) {
  EXPECT_THROW(SimPort(Config{}, LineOptions{0}), std::invalid_argument);
  Config noSerial;
  noSerial.serial.clear();
  EXPECT_THROW(SimPort{noSerial}, std::invalid_argument);
  SimPort port(Config{});
  EXPECT_THROW(port.master().setFiber(2, zeltosim::Fiber{}), std::out_of_range);
  EXPECT_THROW(port.master().setAnswerDelayMs(-1), std::invalid_argument);
  EXPECT_THROW(zeltosim::PortsVariable({&port, nullptr}), std::invalid_argument);
}

TEST(SimLine, ReadingsComeFromTheLastCaptureOneLinePerFibre) {
  SimPort port(Config{});
  HostLine host(port.path());
  EXPECT_EQ(host.ask("GETRGBIALL", "\r\n0 0 0 0\r\n"), "0 0 0 0\r\n0 0 0 0\r\n");

  port.master().setFiber(1, Fiber{0.0, 0.0, 1.0, 1000.0});
  EXPECT_EQ(host.ask("C6"), "OK\r\n");
  port.master().setFiber(1, Fiber{1.0, 0.0, 0.0, 5.0});  // too late for that capture
  EXPECT_EQ(host.ask("SETLIN"), "OK\r\n");
  const std::string all = host.ask("GETRGBIALL", "255 1000\r\n");
  EXPECT_EQ(all, "77 128 51 1200\r\n0 0 255 1000\r\n");
  EXPECT_EQ(host.ask("GETINTENSITY02"), "1000\r\n");
  EXPECT_EQ(host.ask("SETLOG"), "OK\r\n");
  EXPECT_EQ(host.ask("GETINTENSITY02"), "14427\r\n");  // 20814 ln 2

  const std::string xy = host.ask("GETXY02");
  EXPECT_EQ(xy, "0.1500 0.0600\r\n");
  EXPECT_EQ(host.ask("GETHSI02"), "240.00 100.00 14427\r\n");
  EXPECT_EQ(host.ask("GETWAVELENGTH02"), "465\r\n");
  EXPECT_EQ(host.ask("GETCCT01"), "5614\r\n");
  for (const char* bad : {"GETXY03", "GETXY00", "GETXY1", "GETCCTALLX"})
    EXPECT_EQ(host.ask(bad), "SYNTAX ERROR\r\n") << bad;
}

