// Sequences through the C interface against simulated analysers: set-up,
// capture and readouts, and the search for test settings, measured on a
// simulated light.
#include <functional>
#include <utility>

#include "bench.hpp"

namespace {

class SequenceTest : public SimBench {
 protected:
  // An analyser of two fibres, open, in linear mode unless told otherwise.
  const char* Open(bool linear = true) {
    port_ = &OpenPort(Analyser("ZS0001"));
    if (linear) {
      EXPECT_EQ(Send(*port_, "SETLIN"), 1);
    }
    port_->clearLog();
    return port_->path().c_str();
  }

  // Sets up `samples` captures of `captureMs` and runs them on `fiber`.
  void Capture(int captureMs, int samples, int fiber = 0) {
    ASSERT_EQ(Outcome(ZeltoCom_Sequence_Setup(path(), 0, captureMs, 0, samples, 0)), "1");
    ASSERT_EQ(Outcome(ZeltoCom_Sequence_Capture(path(), fiber)), "1");
  }

  const char* path() const { return port_->path().c_str(); }

  zeltosim::SimPort* port_ = nullptr;
};

struct Refusal {
  std::function<int()> call;
  std::string outcome;
};

}  // namespace

TEST_F(SequenceTest, SetupAndCaptureSendTheirCommandsAndRefusalsNothing) {
  const char* p = Open();
  int values[4] = {};
  const std::string notSetUp = "-1: Sequece has not been set up.";
  const std::string samples = "-1: Parameter SampleCount is out of range [1, 9999]";
  const std::string threshold =
      "-1: Intensity value should be in the range [0, 99999] or -1 to disable (auto)";
  const std::string fiber = "-1: Wrong Fiber number!";
  const std::vector<Refusal> rows = {
      {[&] { return ZeltoCom_Sequence_Capture(p, 1); }, notSetUp},
      {[&] { return ZeltoCom_Sequence_ReadIntensity(p, 1, values); }, notSetUp},
      {[&] { return ZeltoCom_Sequence_Setup(p, 1000, 0, 0, 1, 0); },
       "-1: Parameter StartDelay is out of range [0, 999]ms"},
      {[&] { return ZeltoCom_Sequence_Setup(p, 0, 1000, 0, 1, 0); },
       "-1: Parameter CaptureTime is out of range [0, 999]ms"},
      {[&] { return ZeltoCom_Sequence_Setup(p, 0, 0, 1000, 1, 0); },
       "-1: Parameter TimeBetweenCaptures is out of range [0, 999]ms"},
      {[&] { return ZeltoCom_Sequence_Setup(p, 0, 0, 0, 0, 0); }, samples},
      {[&] { return ZeltoCom_Sequence_Setup(p, 0, 0, 0, 10000, 0); }, samples},
      {[&] { return ZeltoCom_Sequence_SetPatternThresholdHigh(p, 100000); }, threshold},
      {[&] { return ZeltoCom_Sequence_SetPatternThresholdLow(p, -2); }, threshold},
      {[&] { return ZeltoCom_Sequence_SetPatternThresholdHigh(p, 99999); }, "1"},
      {[&] { return ZeltoCom_Sequence_SetPatternThresholdLow(p, -1); }, "1"},
      {[&] { return ZeltoCom_Sequence_Setup(p, 0, 1, 0, 4, 0); }, "1"},
      {[&] { return ZeltoCom_Sequence_Capture(p, 3); }, fiber},
      {[&] { return ZeltoCom_Sequence_Capture(p, -1); }, fiber},
      {[&] { return ZeltoCom_Sequence_ReadIntensity(p, 0, values); }, "-1: Fiber out of range"},
      {[&] { return ZeltoCom_Sequence_ReadIntensity(p, 1, values); },
       "-1: Sequece Capture has not been done yet."},
      {[&] { return ZeltoCom_Sequence_ReadIntensity(p, 1, nullptr); },
       "-1: No buffer given for the result"},
  };
  for (const Refusal& r : rows) EXPECT_EQ(Outcome(r.call()), r.outcome) << &r - rows.data();
  // Only the fibre count, learnt once, and the set-up reached the instrument.
  EXPECT_EQ(Sent(*port_), Words("GETNFIB PUTSEQUENCESTARTDELAY000 PUTSEQUENCECAPTURE001 "
                                "PUTSEQUENCEWAIT000 PUTSEQUENCENUMBER004"));

  // Set-up and capture send their commands in the set or put form.
  port_->clearLog();
  ASSERT_EQ(ZeltoCom_Sequence_Setup(p, 100, 20, 30, 50, 1), 1);
  const zeltocom::PortRef record = Record(*port_);
  EXPECT_EQ(record->sequence.periodMs, 50);
  EXPECT_EQ(record->sequence.timeoutMs, 3100);
  ASSERT_EQ(ZeltoCom_Sequence_Setup(p, 0, 0, 0, 1000, 0), 1);
  ASSERT_EQ(ZeltoCom_Sequence_Capture(p, 0), 1);
  ASSERT_EQ(ZeltoCom_Sequence_Setup(p, 0, 1, 1, 2, 0), 1);
  ASSERT_EQ(ZeltoCom_Sequence_Capture(p, 2), 1);
  EXPECT_EQ(Sent(*port_),
            (std::vector<std::string>{
                "SETSEQUENCESTARTDELAY100", "SETSEQUENCECAPTURE020", "SETSEQUENCEWAIT030",
                "SETSEQUENCENUMBER050", "PUTSEQUENCESTARTDELAY000", "PUTSEQUENCECAPTURE000",
                "PUTSEQUENCEWAIT000", "PUTSEQUENCENUMBER1000", "PUTSEQUENCEMODE0", "CS",
                "PUTSEQUENCESTARTDELAY000", "PUTSEQUENCECAPTURE001", "PUTSEQUENCEWAIT001",
                "PUTSEQUENCENUMBER002", "PUTSEQUENCEMODE1", "PUTSEQUENCECHANNEL02", "CS"}));
  EXPECT_EQ(record->sequence.samples, 2);

  // A refused command stops the set-up and keeps the last one.
  port_->master().setFault(zeltosim::Fault::SyntaxErrorAll);
  EXPECT_EQ(Outcome(ZeltoCom_Sequence_Setup(p, 0, 5, 0, 9, 0)),
            "0: Unable to set Initial Capture delay");
  EXPECT_EQ(record->sequence.samples, 2);
  EXPECT_EQ(Outcome(ZeltoCom_Sequence_Capture(p, 1)), "0: Unable to set Sequence Mode");
}

TEST_F(SequenceTest, EachReadoutParsesItsColumns) {
  const char* p = Open();
  Capture(5, 3, 1);
  std::vector<int> intensity(3), second(3), wavelength(3), cct(3), saturation(3);
  std::vector<float> x(3), y(3), hue(3), other(3);
  std::vector<unsigned char> r(3), g(3), b(3);
  ASSERT_EQ(ZeltoCom_Sequence_ReadRGBI(p, 1, r.data(), g.data(), b.data(), intensity.data()), 1);
  EXPECT_EQ(std::vector<int>({r[2], g[2], b[2], intensity[2]}),
            (std::vector<int>{77, 128, 51, 1200}));
  ASSERT_EQ(ZeltoCom_Sequence_ReadxyI(p, 1, x.data(), y.data(), second.data()), 1);
  EXPECT_FLOAT_EQ(x[0], 0.3288f);
  EXPECT_FLOAT_EQ(y[0], 0.4232f);
  EXPECT_EQ(second[0], 1200);
  ASSERT_EQ(ZeltoCom_Sequence_ReadHSI(p, 1, hue.data(), saturation.data(), intensity.data()), 1);
  EXPECT_FLOAT_EQ(hue[1], 100.89f);
  EXPECT_EQ(saturation[1], 40);
  EXPECT_EQ(intensity[1], 1200);
  ASSERT_EQ(ZeltoCom_Sequence_ReadCCT(p, 1, cct.data(), other.data()), 1);
  EXPECT_EQ(cct[0], 5614);
  EXPECT_FLOAT_EQ(other[0], 0.3288f);
  ASSERT_EQ(ZeltoCom_Sequence_ReadWavelength(p, 1, wavelength.data()), 1);
  EXPECT_EQ(wavelength, (std::vector<int>{549, 549, 549}));
  // Only fiber 1 was captured.
  EXPECT_EQ(Outcome(ZeltoCom_Sequence_ReadIntensity(p, 2, intensity.data())),
            "0: Unexpected error detected while trying to retrieve the test results");
}

TEST_F(SequenceTest, ShortValuesAreSamplesPaddedOrBare) {
  const char* p = Open();
  port_->master().setFiber(0, zeltosim::Fiber{0, 0, 1});  // 465 nm
  port_->master().setFiber(1, zeltosim::Fiber{1, 0, 0});  // 625 nm
  ASSERT_EQ(ZeltoCom_UserCal_SetWavelengthOffset(p, 1, -85, 0), 1);
  ASSERT_EQ(ZeltoCom_UserCal_SetWavelengthOffset(p, 2, 155, 0), 1);
  port_->master().setLight(0, zeltosim::Light::Blinking(25, 50, 1500, 7));  // 20 ms lit, 20 dark
  Capture(10, 6);
  for (const bool bare : {false, true}) {
    port_->master().setUnpaddedReadouts(bare);
    std::vector<int> intensity(6, -1), violet(6, -1), red(6, -1);
    ASSERT_EQ(ZeltoCom_Sequence_ReadIntensity(p, 1, intensity.data()), 1);
    ASSERT_EQ(ZeltoCom_Sequence_ReadWavelength(p, 1, violet.data()), 1);
    ASSERT_EQ(ZeltoCom_Sequence_ReadWavelength(p, 2, red.data()), 1);
    EXPECT_EQ(intensity, (std::vector<int>{1500, 1500, 7, 7, 1500, 1500})) << bare;
    EXPECT_EQ(violet, std::vector<int>(6, 380)) << bare;
    EXPECT_EQ(red, std::vector<int>(6, 780)) << bare;
  }

  // On the line: right-aligned in the reading's 11 characters, or bare.
  Capture(10, 1, 2);
  for (const auto& [bare, line] : {std::pair{false, "        780"}, std::pair{true, "780"}}) {
    port_->master().setUnpaddedReadouts(bare);
    ASSERT_EQ(Send(*port_, "GETWAVELENGTH02"), 1);
    EXPECT_STREQ(answer_, line);
  }
}

TEST_F(SequenceTest, FindTestSettingsMeasuresTheLightItIsGiven) {
  const char* p = Open(false);
  port_->master().setLight(0, zeltosim::Light::Blinking(5, 30));
  unsigned captureTime = 0, wait = 9;
  int samples = 0;
  ASSERT_EQ(Outcome(ZeltoCom_Sequence_FindTestSettings(p, 1, 2, 10, &captureTime, &wait, &samples)),
            "1");
  EXPECT_EQ(std::vector<unsigned>({captureTime, wait}), (std::vector<unsigned>{12, 0}));
  EXPECT_EQ(samples, 167);
  EXPECT_EQ(port_->countReceived("PUTSEQUENCENUMBER167"), 1);
  EXPECT_EQ(port_->countReceived("SETSEQUENCENUMBER167"), 0);

  ASSERT_EQ(ZeltoCom_Sequence_Setup(p, 0, captureTime, wait, samples, 1), 1);
  ASSERT_EQ(ZeltoCom_Sequence_Capture(p, 1), 1);
  std::vector<int> series(static_cast<std::size_t>(samples));
  ASSERT_EQ(ZeltoCom_Sequence_ReadIntensity(p, 1, series.data()), 1);
  float frequency = 0, duty = 0;
  int cycles = 0;
  ASSERT_EQ(ZeltoCom_Sequence_GetFrequency(p, series.data(), &frequency, &duty, &cycles), 1);
  EXPECT_NEAR(frequency, 5.0f, 0.2f);
  EXPECT_NEAR(duty, 30.0f, 6.0f);  // a sample is 6 % of a cycle
  EXPECT_EQ(cycles, 9);
  const std::vector<int> steady(samples, 900);
  EXPECT_EQ(Outcome(ZeltoCom_Sequence_GetFrequency(p, steady.data(), &frequency, &duty, &cycles)),
            "0: No blinking found in the sequence");
  EXPECT_EQ(frequency, 0.0f);

  // Too fast for the range: what was measured is named.
  port_->master().setLight(0, zeltosim::Light::Blinking(200, 50));
  EXPECT_EQ(
      Outcome(ZeltoCom_Sequence_FindTestSettings(p, 1, 50, 100, &captureTime, &wait, &samples)),
      "0: Measured 200.00 Hz on fiber 1, outside 50 to 100 Hz");

  zeltosim::Fiber dim;
  dim.force = zeltosim::Range::UnderRange;
  port_->master().setFiber(0, dim);
  EXPECT_EQ(
      Outcome(ZeltoCom_Sequence_FindTestSettings(p, 1, 100, 125, &captureTime, &wait, &samples)),
      "0: The light on fiber 1 is under range: nothing to measure");

  port_->clearLog();
  EXPECT_EQ(
      Outcome(ZeltoCom_Sequence_FindTestSettings(p, 1, 150, 250, &captureTime, &wait, &samples)),
      "-1: No sequence resolves 150 to 250 Hz: it takes 8 samples (of at least 1 ms) per cycle "
      "of the fastest light, so at most 125 Hz, and 4 cycles of the slowest within 9999 samples");
  EXPECT_EQ(Outcome(ZeltoCom_Sequence_FindTestSettings(p, 3, 1, 2, &captureTime, &wait, &samples)),
            "-1: Fiber out of range");
  EXPECT_EQ(Outcome(ZeltoCom_Sequence_FindTestSettings(p, 1, 1, 2, nullptr, &wait, &samples)),
            "-1: No buffer given for the result");
  EXPECT_TRUE(Sent(*port_).empty());
}
