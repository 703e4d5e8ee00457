// What the instruments answer: settings, readings, captures and darks.
#include <gtest/gtest.h>

#include "host_line.hpp"
#include "zeltosim/zeltosim.hpp"

using namespace simtest;
using zeltosim::Config;
using zeltosim::Fiber;
using zeltosim::Range;
using zeltosim::SimPort;

namespace {

Config Spectrometer(const char* hardware) {
  Config config;
  config.hardware = hardware;
  config.captureTimeScale = 0.01;
  return config;
}

}  // namespace

TEST(SimCommands, SettingsFollowSetAndPutPerAdjustmentSet) {
  SimPort port(Config{});
  HostLine host(port.path());
  EXPECT_EQ(host.ask("SETFACTOR3"), "OK\r\n");
  EXPECT_EQ(host.ask("PUTAVERAGE4"), "OK\r\n");
  EXPECT_EQ(host.ask("putlin"), "OK\r\n");
  EXPECT_EQ(host.ask("SETCALIBRATION05"), "OK\r\n");
  EXPECT_EQ(host.ask("GETCALIBRATION"), "05\r\n");
  EXPECT_EQ(host.ask("GETFACTOR"), "1\r\n") << "set 5 keeps its own settings";
  EXPECT_EQ(host.ask("PUTCALIBRATION0"), "OK\r\n");
  EXPECT_EQ(host.ask("GETFACTOR"), "3\r\n");
  EXPECT_EQ(host.ask("GETAVERAGE"), "4\r\n");
  EXPECT_EQ(host.ask("GETINTENSITYMODE"), "LINEAR\r\n");
  const auto s = port.master().settings();
  EXPECT_EQ(s.factor, 3);
  EXPECT_EQ(s.averages, 4);
  EXPECT_FALSE(s.logarithmic);

  EXPECT_EQ(host.ask("RESETUSERCAL"), "OK\r\n");
  EXPECT_EQ(host.ask("GETFACTOR"), "1\r\n");
  EXPECT_EQ(host.ask("GETINTENSITYMODE"), "LOGARITHMIC\r\n");
  for (const char* bad : {"SETCALIBRATION99", "SETCALIBRATIONX", "SETFACTOR0", "SETFACTOR",
                          "GETADJUSTMENT", "GETPWM", "SETPWM1", "CAPTUREDARK"})
    EXPECT_EQ(host.ask(bad), "SYNTAX ERROR\r\n") << bad;
  EXPECT_EQ(port.master().adjustmentSet(), 0);
}

TEST(SimCommands, SpectrometerFamilies) {
  SimPort w2(Spectrometer("Zelto 05-W2"));
  HostLine host(w2.path());
  EXPECT_EQ(host.ask("GETNFIB"), "1\r\n");
  EXPECT_EQ(host.ask("GETADJUSTMENT"), "00\r\n");
  EXPECT_EQ(host.ask("SETPWM1"), "OK\r\n");
  EXPECT_EQ(host.ask("GETPWM"), "1\r\n");
  EXPECT_EQ(host.ask("GETCUSTOMTIME"), "100000 us\r\n");
  EXPECT_EQ(host.ask("PUTCUSTOMTIME0001500"), "OK\r\n");
  EXPECT_EQ(host.ask("GETCUSTOMTIME"), "1500 us\r\n");
  EXPECT_EQ(w2.master().settings().customTime, 1500);
  for (const char* bad : {"GETCALIBRATION", "GETRGBI01", "GETXYALL", "C4000001", "SETPWM2"})
    EXPECT_EQ(host.ask(bad), "SYNTAX ERROR\r\n") << bad;

  SimPort w(Spectrometer("Zelto 05-W"));
  HostLine other(w.path());
  EXPECT_EQ(other.ask("GETPWM"), "SYNTAX ERROR\r\n");
  EXPECT_EQ(other.ask("GETCUSTOMTIME"), "100 ms\r\n");
  EXPECT_EQ(other.ask("C15001"), "SYNTAX ERROR\r\n");
  EXPECT_EQ(other.ask("C15000"), "OK\r\n");
}

TEST(SimCommands, ReadingsComeFromTheLastCaptureOneLinePerFibre) {
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

TEST(SimCommands, LedCapturesReportForcedRangesAndTakeTime) {
  Config config;
  config.captureTimeScale = 0.1;
  SimPort port(config);
  HostLine host(port.path());
  Fiber forced;
  forced.force = Range::UnderRange;
  port.master().setFiber(1, forced);
  EXPECT_EQ(host.ask("c2pwm05"), "UNDERRANGE ON FIBER 02\r\n");
  EXPECT_EQ(port.master().lastCaptureCommand(), "c2pwm05");

  port.master().setFiber(1, Fiber{});
  const auto start = Clock::now();
  EXPECT_EQ(host.ask("C1"), "OK\r\n");
  EXPECT_GE(MsSince(start), 85);  // 900 ms scaled by 0.1
  EXPECT_EQ(port.master().captures(), 2);
  for (const char* bad : {"C7", "C0", "CPWM5", "C1PWM123", "C12", "CS"})
    EXPECT_EQ(host.ask(bad), "SYNTAX ERROR\r\n") << bad;
  EXPECT_EQ(port.master().captures(), 2);
}

TEST(SimCommands, SpectrometerCaptureConditionReplacesOk) {
  SimPort port(Spectrometer("Zelto 05-W"));
  HostLine host(port.path());
  port.master().setCaptureCondition("DARK SIGNAL TOO HIGH");
  EXPECT_EQ(host.ask("C"), "DARK SIGNAL TOO HIGH\r\n");
  EXPECT_EQ(host.ask("I"), "OK\r\n");
}

TEST(SimCommands, DarkAnnouncesThenAnswersWhenDone) {
  Config config = Spectrometer("Zelto 05-W");
  config.captureTimeScale = 1.0;
  config.eot = true;
  SimPort port(config);
  HostLine host(port.path());
  const auto start = Clock::now();
  host.send("CAPTUREDARK150");
  EXPECT_EQ(host.readUntil("\x04"), "Acquiring...\r\n\x04");
  EXPECT_LT(MsSince(start), 100);
  EXPECT_EQ(host.readUntil("\x04"), "OK\r\n\x04");
  EXPECT_GE(MsSince(start), 145);
  EXPECT_EQ(port.master().lastCaptureCommand(), "CAPTUREDARK150");

  port.master().setDarkAnnounces(false);
  EXPECT_EQ(host.ask("CAPTUREDARK  5", "\x04"), "OK\r\n\x04");
  EXPECT_EQ(host.ask("CAPTUREDARK   ", "\x04"), "SYNTAX ERROR\r\n\x04");
  EXPECT_EQ(port.master().captures(), 2);
}

TEST(SimCommands, IntensityModeWithoutItsCommandShowsInStatus) {
  Config config;
  config.hasIntensityModeCommand = false;
  SimPort port(config);
  HostLine host(port.path());
  EXPECT_EQ(host.ask("GETINTENSITYMODE"), "SYNTAX ERROR\r\n");
  EXPECT_EQ(host.ask("SETLIN"), "OK\r\n");
  const std::string status = host.ask("GETSTATUS", "Linear\r\n");
  EXPECT_NE(status.find("Intensity mode: Linear\r\n"), std::string::npos) << status;
  EXPECT_NE(status.find("Serial: ZS000001\r\n"), std::string::npos) << status;
}
