// The wire: framing, line speed, faults, delays, the bus and the port's life.
#include <gtest/gtest.h>

#include <memory>

#include "host_line.hpp"
#include "zeltosim/zeltosim.hpp"

using namespace simtest;
using zeltosim::Config;
using zeltosim::Fault;
using zeltosim::LineOptions;
using zeltosim::SimPort;
using zeltosim::WrongSpeed;

TEST(SimLine, FramesAnswersWithCrLfAndOptionalEot) {
  SimPort port(Config{});
  HostLine host(port.path());
  EXPECT_EQ(host.ask("GETSERIAL"), "ZS000001\r\n");
  EXPECT_EQ(host.ask("ENABLEEOT", "\x04"), "OK\r\n\x04");
  EXPECT_EQ(host.ask("GETSERIAL", "\x04"), "ZS000001\r\n\x04");
  EXPECT_TRUE(port.master().eot());
  EXPECT_EQ(host.ask("DISABLEEOT"), "OK\r\n");
  EXPECT_EQ(host.readFor(50ms), "") << "no 0x04 may trail the OK of DISABLEEOT";
  EXPECT_EQ(host.ask("NOSUCHCOMMAND"), "SYNTAX ERROR\r\n");
}

TEST(SimLine, IgnoresWakeUpAndMatchesAnyLetterCase) {
  SimPort port(Config{});
  HostLine host(port.path());
  host.sendRaw("\r\n\r\n\r\n");
  EXPECT_EQ(host.ask("getSerial"), "ZS000001\r\n");
  const auto log = port.lineLog();
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0].text, "getSerial");
  EXPECT_EQ(log[0].lineBaud, 57600);
  EXPECT_TRUE(log[0].understood);
  EXPECT_EQ(port.countReceived("GETSERIAL"), 1);
  EXPECT_EQ(port.master().received(), std::vector<std::string>{"getSerial"});
}

TEST(SimLine, WrongSpeedIsNotUnderstood) {
  SimPort port(Config{}, LineOptions{57600, WrongSpeed::Silent, false});
  HostLine host(port.path(), B9600);
  host.send("GETSERIAL");
  EXPECT_EQ(host.readFor(150ms), "");
  const auto log = port.lineLog();
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0].lineBaud, 9600);
  EXPECT_FALSE(log[0].understood);
  EXPECT_TRUE(port.master().received().empty());
}

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

TEST(SimLine, SetBaudAnswersAtTheOldRateThenSwitches) {
  SimPort port(Config{});
  HostLine host(port.path());
  EXPECT_EQ(host.ask("SETBAUD115200"), "OK\r\n");
  EXPECT_EQ(port.baud(), 115200);
  host.send("GETSERIAL");
  EXPECT_EQ(host.readFor(100ms), "");
  host.setSpeed(B115200);
  EXPECT_EQ(host.ask("GETSERIAL"), "ZS000001\r\n");
  EXPECT_EQ(host.ask("SETBAUD0"), "SYNTAX ERROR\r\n");
  EXPECT_EQ(host.ask("SETBAUD"), "SYNTAX ERROR\r\n");
  EXPECT_EQ(port.baud(), 115200);
}

TEST(SimLine, FaultsSwitchAtRunTime) {
  SimPort port(Config{});
  HostLine host(port.path());
  port.master().setFault(Fault::Echo);
  EXPECT_EQ(host.ask("getSerial"), "getSerial\r\n");
  port.master().setFault(Fault::SyntaxErrorAll);
  EXPECT_EQ(host.ask("GETSERIAL"), "SYNTAX ERROR\r\n");
  port.master().setFault(Fault::Silent);
  host.send("BUSFREE");
  EXPECT_EQ(host.readFor(100ms), "");
  port.master().setFault(Fault::Echo);
  EXPECT_EQ(host.ask("ENABLEEOT"), "ENABLEEOT\r\n");
  EXPECT_FALSE(port.master().eot()) << "an echoing instrument must not act on the line";
  port.master().setFault(Fault::None);
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

TEST(SimLine, BusRoutesToAChainedInstrumentAndBack) {
  SimPort port(Config{});
  Config second;
  second.serial = "ZS000002";
  second.eot = true;
  port.chain(second);
  HostLine host(port.path());

  EXPECT_EQ(host.ask("BUSGETzs000002", "\x04"), "OK\r\n\x04") << "the chained one confirms";
  EXPECT_EQ(port.busHolder(), "ZS000002");
  EXPECT_EQ(host.ask("GETSERIAL", "\x04"), "ZS000002\r\n\x04");
  EXPECT_EQ(host.ask("BUSGETZS999999"), "NO DEVICE\r\n");
  EXPECT_EQ(port.busHolder(), "ZS000002");
  // The holder lets go of the line and says so in its own framing.
  EXPECT_EQ(host.ask("BUSFREE", "\x04"), "OK\r\n\x04");
  EXPECT_EQ(host.ask("GETSERIAL"), "ZS000001\r\n");

  EXPECT_EQ(host.ask("BUSGETZS000002", "\x04"), "OK\r\n\x04");
  EXPECT_EQ(host.ask("BUSGETZS000001"), "OK\r\n");
  EXPECT_EQ(port.busHolder(), "ZS000001");
  EXPECT_EQ(host.ask("BUSGET"), "SYNTAX ERROR\r\n");
}

TEST(SimLine, InstrumentWithoutBusRefusesBusCommands) {
  Config config;
  config.knowsBus = false;
  SimPort port(config);
  HostLine host(port.path());
  EXPECT_EQ(host.ask("BUSFREE"), "SYNTAX ERROR\r\n");
  EXPECT_EQ(host.ask("BUSGETZS000001"), "SYNTAX ERROR\r\n");
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
