// LED analyser and spectrometer captures.
#include "bench.hpp"
#include "frame/registry.hpp"

using testlines::Clock;
using testlines::MsSince;

using CaptureTest = SimBench;

TEST_F(CaptureTest, SettingsAreAskedOnceBeforeTheFirstCapture) {
  zeltosim::SimPort& port = OpenQuiet(Analyser("ZS0001"));
  const char* p = port.path().c_str();
  for (int frames : {3, 0}) {
    EXPECT_EQ(ZeltoCom_Capture(p, 1, 5, frames), 1) << LastError();
  }
  EXPECT_EQ(ZeltoCom_Capture(p, 0, 0, 7), 1) << LastError();
  EXPECT_EQ(Sent(port), (std::vector<std::string>{"GETHW", "GETCALIBRATION", "GETFACTOR", "C5PWM03",
                                                  "C5PWM", "C"}));

  // Colour models count their averages too.
  zeltosim::Config colour = Analyser("ZS0003");
  colour.hardware = "Zelto 05-CLR";
  zeltosim::SimPort& clr = OpenQuiet(colour);
  EXPECT_EQ(ZeltoCom_Capture(clr.path().c_str(), 0, 5, 0), 1) << LastError();
  EXPECT_EQ(Sent(clr),
            (std::vector<std::string>{"GETHW", "GETCALIBRATION", "GETAVERAGE", "GETFACTOR", "C5"}));

  // A set beyond the last the cache keeps is not believed; the capture goes on.
  zeltosim::SimPort& odd = OpenQuiet(Analyser("ZS0002"));
  odd.master().setAnswer("GETCALIBRATION", "99");
  EXPECT_EQ(ZeltoCom_Capture(odd.path().c_str(), 0, 5, 0), 1) << LastError();
  EXPECT_EQ(Record(odd)->settings.adjustmentSet, -1);
}

// Refusals send nothing, but what tells an analyser from a spectrometer.
TEST_F(CaptureTest, RefusedCallsSendNothing) {
  zeltosim::SimPort& port = OpenQuiet(Analyser("ZS0001"));
  const char* p = port.path().c_str();
  EXPECT_EQ(Outcome(ZeltoCom_Capture(p, 0, 7, 0)), "-1: Range value out of limits");
  EXPECT_EQ(ZeltoCom_Capture(p, 0, -1, 0), -1);
  EXPECT_EQ(Outcome(ZeltoCom_Capture(p, 1, 2, 16)), "-1: Frames value out of limits");
  EXPECT_EQ(PortError(port), "Frames value out of limits");
  EXPECT_TRUE(port.lineLog().empty());
  EXPECT_EQ(Outcome(ZeltoCom_Capture("/dev/pts/none", 0, 2, 0)), "-1: The port is not in use");
  EXPECT_EQ(Outcome(ZeltoCom_SpectrometerCapture(p, 0, 0, 0)), "-1: Device is not a Spectrometer");
  EXPECT_EQ(Sent(port), (std::vector<std::string>{"GETHW"}));

  zeltosim::SimPort& spectrometer = OpenQuiet(Spectrometer("SP0001"));
  EXPECT_EQ(Outcome(ZeltoCom_Capture(spectrometer.path().c_str(), 0, 2, 0)),
            "-1: Device is a Spectrometer");
  EXPECT_EQ(Sent(spectrometer), (std::vector<std::string>{"GETHW"}));
  // The dark asks for the adjustment set before it refuses.
  zeltosim::SimPort& other = OpenQuiet(Analyser("ZS0002"));
  EXPECT_EQ(Outcome(ZeltoCom_SpectrometerDark(other.path().c_str(), 0, 0, 0)),
            "-1: Device is not a Spectrometer");
  EXPECT_EQ(Sent(other), (std::vector<std::string>{"GETHW", "GETCALIBRATION"}));
}

TEST_F(CaptureTest, RangeReportsTimeOutsAndSyntaxErrorsBecomeErrorTexts) {
  zeltosim::SimPort& port = OpenQuiet(Analyser("ZS0001"));
  const char* p = port.path().c_str();
  for (const char* condition : {"OVERRANGE ON FIBER 02", "UNDERRANGE ON FIBER 01", "Not stable"}) {
    port.master().setAnswer("C5", condition);
    EXPECT_EQ(Outcome(ZeltoCom_Capture(p, 0, 5, 0)),
              "0: " + std::string(condition) + " condition detected");
    EXPECT_EQ(PortError(port), std::string(condition) + " condition detected");
  }
  // The port stays usable.
  ASSERT_EQ(ZeltoCom_Capture(p, 0, 6, 0), 1);

  // Time-outs and syntax errors name the device.
  port.master().setFault(zeltosim::Fault::Silent);
  EXPECT_EQ(ZeltoCom_Capture(p, 0, 6, 0), 0);
  const std::string error = LastError();
  EXPECT_EQ(error.rfind("Timeout (", 0), 0u) << error;
  EXPECT_NE(error.find(" ms) in Device on " + port.path() + " with SN ZS0001"), std::string::npos)
      << error;

  port.master().setFault(zeltosim::Fault::SyntaxErrorAll);
  EXPECT_EQ(Outcome(ZeltoCom_Capture(p, 0, 6, 0)),
            "0: Syntax error in Device on " + port.path() + " with SN ZS0001");

  // Without the automatic time-out the library-wide one holds (range 1 would
  // wait seconds); the text tells the time waited as the library counted it.
  port.master().setFault(zeltosim::Fault::Silent);
  ASSERT_EQ(ZeltoCom_SetResponseTimeoutAuto(p, 0), 1);
  ZeltoCom_SetResponseTimeout(250);
  EXPECT_EQ(ZeltoCom_Capture(p, 0, 1, 0), 0);
  EXPECT_EQ(LastError().rfind("Timeout (2", 0), 0u) << LastError();
  // Still silent: the line cannot be brought back in step, so the next
  // capture is held back and tells the whole time-out all the same.
  EXPECT_EQ(ZeltoCom_Capture(p, 0, 1, 0), 0);
  EXPECT_EQ(LastError().rfind("Timeout (250 ms)", 0), 0u) << LastError();
}

TEST_F(CaptureTest, SpectrometerExposureIsSentInTheModelsUnitWithinTheModelsLimit) {
  zeltosim::Config fast = Spectrometer("SP0002", "Zelto 01-W2");
  fast.captureTimeScale = 0.01;
  zeltosim::SimPort& w2 = OpenQuiet(fast);
  const char* p = w2.path().c_str();
  ASSERT_EQ(ZeltoCom_SpectrometerCapture(p, 0, 1, 2.5f), 1) << LastError();
  EXPECT_EQ(Sent(w2),
            (std::vector<std::string>{"GETHW", "GETADJUSTMENT", "GETAVERAGE", "PUTPWM0", "C2500"}));
  EXPECT_EQ(Outcome(ZeltoCom_SpectrometerCapture(p, 0, 1, 4000.5f)),
            "-1: Exposure value out of limits");
  EXPECT_EQ(ZeltoCom_SpectrometerCapture(p, 0, 1, -1.0f), -1);
  EXPECT_EQ(ZeltoCom_SpectrometerCapture(p, 0, 1, 4000.0f), 1) << LastError();
  EXPECT_EQ(w2.master().lastCaptureCommand(), "C4000000");

  // The PWM mode of W2 models is switched before the capture; the switch is
  // not a cached setting.
  ASSERT_EQ(ZeltoCom_SpectrometerCapture(p, 1, 0, 0), 1) << LastError();
  EXPECT_EQ(w2.countReceived("PUTPWM1"), 1);
  EXPECT_EQ(w2.master().settings().pwm, 1);
  EXPECT_EQ(Record(w2)->settings.current->pwm, -1);
  // Without the automatic time-out the spectrum is still taken.
  ASSERT_EQ(ZeltoCom_SetResponseTimeoutAuto(p, 0), 1);
  ASSERT_EQ(ZeltoCom_SpectrometerCapture(p, 1, 1, 5.0f), 1) << LastError();
  EXPECT_EQ(w2.master().lastCaptureCommand(), "C5000");
  EXPECT_EQ(w2.countReceived("PUTPWM1"), 2);
  ASSERT_EQ(ZeltoCom_SpectrometerCapture(p, 0, 0, 0), 1) << LastError();
  EXPECT_EQ(w2.master().captures(), 5);
  EXPECT_EQ(w2.master().lastCaptureCommand(), "C");
  w2.master().setFault(zeltosim::Fault::SyntaxErrorAll);
  EXPECT_EQ(Outcome(ZeltoCom_SpectrometerCapture(p, 1, 0, 0)), "0: Syntax error");

  fast.serial = "SP0001";
  fast.hardware = "Zelto 01-W";
  zeltosim::SimPort& w = OpenQuiet(fast);
  p = w.path().c_str();
  ASSERT_EQ(ZeltoCom_SpectrometerCapture(p, 1, 1, 2.5f), 1) << LastError();
  EXPECT_EQ(w.master().lastCaptureCommand(), "C2");
  EXPECT_EQ(w.countReceived("PUTPWM1"), 0);
  EXPECT_EQ(ZeltoCom_SpectrometerCapture(p, 0, 1, 15000.0f), 1) << LastError();
  EXPECT_EQ(ZeltoCom_SpectrometerCapture(p, 0, 1, 15001.0f), -1);
  // Any other manual flag, or no averages to size the wait, lets the instrument choose.
  ASSERT_EQ(ZeltoCom_SpectrometerCapture(p, 0, 2, 2.5f), 1) << LastError();
  EXPECT_EQ(w.master().lastCaptureCommand(), "C");
  Record(w)->settings.current->averages = 0;
  ASSERT_EQ(ZeltoCom_SpectrometerCapture(p, 0, 1, 20.0f), 1) << LastError();
  EXPECT_EQ(w.master().lastCaptureCommand(), "C");
}

TEST_F(CaptureTest, DarkIsAnnouncedThenReportedAndStoppedWithoutAnnouncement) {
  zeltosim::SimPort& port = OpenQuiet(Spectrometer("SP0001", "Zelto 01-W"));
  const char* p = port.path().c_str();
  ASSERT_EQ(ZeltoCom_SpectrometerDark(p, 0, 1, 5.0f), 1) << LastError();
  EXPECT_EQ(port.master().lastCaptureCommand(), "CAPTUREDARK  5");
  ASSERT_EQ(ZeltoCom_SpectrometerDark(p, 0, 1, 250.0f), 1) << LastError();
  EXPECT_EQ(port.master().lastCaptureCommand(), "CAPTUREDARK250");
  ASSERT_EQ(ZeltoCom_SpectrometerDark(p, 0, 0, 0), 1) << LastError();
  EXPECT_EQ(port.master().lastCaptureCommand(), "CAPTUREDARK");
  EXPECT_EQ(port.countReceived("I"), 0);

  // An instant dark's result comes in the same read as the announcement.
  port.master().setCaptureMs(0);
  EXPECT_EQ(Outcome(ZeltoCom_SpectrometerDark(p, 0, 1, 1.0f)), "1");

  port.master().setDarkAnnounces(false);
  // The instrument's plain result comes within the first wait.
  EXPECT_EQ(Outcome(ZeltoCom_SpectrometerDark(p, 0, 0, 0)), "0: Dark Acquisition not detected");
  EXPECT_EQ(port.countReceived("I"), 1);

  // Conditions of a capture are its error.
  for (const auto& [condition, error] : {std::pair{"NOT STABLE", "NOT STABLE"},
                                         {"DARK TOO HIGH", "DARK TOO HIGH"},
                                         {"Overrange", "Overrange condition detected"}}) {
    port.master().setCaptureCondition(condition);
    EXPECT_EQ(ZeltoCom_SpectrometerCapture(p, 0, 0, 0), 0) << condition;
    EXPECT_EQ(LastError(), error);
  }
}

// Races the first wait's processor time against the instrument's wall-clock
// delay: run alone.
using ProcessorTimeCaptureTest = CaptureTest;

TEST_F(ProcessorTimeCaptureTest, DarkWhoseResultComesAfterTheFirstWaitSucceeds) {
  zeltosim::Config config = Spectrometer("SP0001", "Zelto 01-W");
  config.captureTimeScale = 1.0;
  config.darkAnnounces = false;
  zeltosim::SimPort& port = OpenQuiet(config);
  // Well past the first wait of 1000 ms, even when a loaded machine slows
  // the processor-time clock.
  EXPECT_EQ(ZeltoCom_SpectrometerDark(port.path().c_str(), 0, 1, 2500.0f), 1) << LastError();
  EXPECT_EQ(port.countReceived("I"), 0);
}
