// How long each call waits: the instrument answers just inside and just
// outside the time-out the call computes, so a formula with a wrong constant
// or a dropped term turns one of the two into the other outcome.
#include <algorithm>
#include <functional>

#include "bench.hpp"

namespace {

// Wide enough for a loaded machine, narrow enough that a time-out a tenth
// off its formula lands on the wrong side of one of the two answers.
int MarginMs(int timeoutMs) { return std::max(60, timeoutMs / 10); }

class TimeoutTest : public SimBench {
 protected:
  // Plain 57600 baud whatever the run's line: the readouts' time-outs
  // follow the line's speed.
  static zeltosim::LineOptions Line(int baud = 57600) {
    zeltosim::LineOptions line;
    line.baud = baud;
    return line;
  }
  static zeltosim::Config Model(const std::string& serial, const std::string& hardware) {
    zeltosim::Config config = Analyser(serial);
    config.hardware = hardware;
    config.eot = false;
    return config;
  }

  // `answerIn(ms)` makes the instrument answer `ms` after the command; the
  // call must succeed inside the time-out and end with `late` outside it.
  void ExpectTimeout(int timeoutMs, const std::function<void(int)>& answerIn,
                     const std::function<int()>& call, const std::string& late) {
    const int margin = MarginMs(timeoutMs);
    answerIn(timeoutMs - margin);
    EXPECT_EQ(Outcome(call()), "1") << "answered " << margin << " ms before the time-out";
    answerIn(timeoutMs + margin);
    EXPECT_EQ(Outcome(call()).substr(0, late.size()), late)
        << "answered " << margin << " ms after the time-out";
  }
};

}  // namespace

TEST_F(TimeoutTest, LedCaptureWaitsForItsRangeExposureAndAverages) {
  const struct {
    const char* what;
    const char* model;
    const char* setting;  // sent before the first capture, which caches it
    int pwm, range, frames;
    int timeoutMs;
  } rows[] = {
      {"range 3, exposure 2", "Zelto 05-P", "SETFACTOR2", 0, 3, 0, 1320},
      {"range 4 stretched, exposure 3", "Zelto 05-P", "SETFACTOR3", 0, 4, 0, 1008},
      {"range 5 with 2 PWM frames", "Zelto 05-P", "SETFACTOR1", 1, 5, 2, 461},
      {"low-light model, 2 averages", "Zelto 05-M", "SETAVERAGE2", 0, 5, 0, 528},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    zeltosim::SimPort& port = OpenPort(Model("ZS0001", row.model), Line());
    ASSERT_EQ(Send(port, row.setting), 1);
    ExpectTimeout(
        row.timeoutMs, [&](int ms) { port.master().setCaptureMs(ms); },
        [&] { return ZeltoCom_Capture(port.path().c_str(), row.pwm, row.range, row.frames); },
        "0: Timeout (");
    ZeltoCom_CloseAll();
  }
}

TEST_F(TimeoutTest, SpectrometerWaitsForItsExposureThriceInPwmModeButNotForADark) {
  const struct {
    const char* what;
    const char* model;
    const char* setting;
    bool dark;
    int pwm;
    float exposure;  // manual, in ms
    int timeoutMs;
  } rows[] = {
      {"-W2 in PWM mode", "Zelto 01-W2", "SETAVERAGE1", false, 1, 100.0f, 3 * 400 + 150},
      {"-W2, 2 averages", "Zelto 01-W2", "SETAVERAGE2", false, 0, 100.0f, 2 * 400 + 150},
      {"-W in PWM mode", "Zelto 01-W", "SETAVERAGE1", false, 1, 50.0f, 3 * 350 + 150},
      {"dark in PWM mode", "Zelto 01-W", "SETAVERAGE1", true, 1, 100.0f, 400 + 150},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    zeltosim::SimPort& port = OpenPort(Model("SP0001", row.model), Line());
    ASSERT_EQ(Send(port, row.setting), 1);
    const auto acquire = row.dark ? ZeltoCom_SpectrometerDark : ZeltoCom_SpectrometerCapture;
    ExpectTimeout(
        row.timeoutMs, [&](int ms) { port.master().setCaptureMs(ms); },
        [&] { return acquire(port.path().c_str(), row.pwm, 1, row.exposure); }, "0: Timeout");
    ZeltoCom_CloseAll();
  }
}

// Each chained instrument adds 150 ms to the slowest capture before it, and
// the whole chain 150 ms more: 200 (range 5) + 2 x 150 + 150. Handing the
// line to one waits at least 80 ms for its "OK", however fast the line: a
// slow instrument still takes it at 40 ms.
TEST_F(TimeoutTest, ChainCaptureAndBusGetWaitForTheChainedInstruments) {
  zeltosim::SimPort& port = AddPort(Model("MASTER1", "Zelto 05-P"), Line());
  std::vector<zeltosim::Instrument*> all = {&port.master(),
                                            &port.chain(Model("CHAIN01", "Zelto 05-P")),
                                            &port.chain(Model("CHAIN02", "Zelto 05-P"))};
  Publish();
  const char* path = port.path().c_str();
  ASSERT_EQ(ZeltoCom_Open(path, port.baud()), 1) << LastError();
  for (const char* serial : {"CHAIN01", "CHAIN02"}) {
    ASSERT_EQ(ZeltoCom_DaisyChain_Add(path, serial), 1) << LastError();
  }
  ExpectTimeout(
      650,
      [&](int ms) {
        for (zeltosim::Instrument* instrument : all) instrument->setCaptureMs(ms);
      },
      [&] { return ZeltoCom_DaisyChain_Capture(path, 0, 5, 0); }, "0: Timeout");
  for (const int ms : {40, 140}) {
    SCOPED_TRACE(std::to_string(ms) + " ms to take the line");
    all[1]->setAnswerDelayMs(0);
    ASSERT_EQ(ZeltoCom_DaisyChain_Send(path, "MASTER1", "GETSERIAL", answer_), 1) << LastError();
    all[1]->setAnswerDelayMs(ms);
    const std::string outcome =
        Outcome(ZeltoCom_DaisyChain_Send(path, "CHAIN01", "GETSERIAL", answer_));
    EXPECT_EQ(outcome, ms < 80 ? "1" : "0: Syntax error or Timeout in BUSGET");
  }
}

// A burst lasts its start delay and its samples, and its wait half a second
// more: 900 + 100 x 1 ms of burst against 1500 ms.
TEST_F(TimeoutTest, SequenceCaptureWaitsForTheStartDelayToo) {
  zeltosim::SimPort& port = OpenPort(Model("ZS0001", "Zelto 05-P"), Line());
  port.master().setCaptureTimeScale(1.0);  // the burst in real time
  const char* path = port.path().c_str();
  ASSERT_EQ(ZeltoCom_Sequence_Setup(path, 900, 1, 0, 100, 0), 1) << LastError();
  EXPECT_EQ(Outcome(ZeltoCom_Sequence_Capture(path, 1)), "1");
}

// Twice the time the line needs for a line per sample, each line's time
// rounded up: at 57600 baud 11 characters take 2.1 ms, at 9600 19 take 21.8.
TEST_F(TimeoutTest, SequenceReadoutWaitsTwiceTheLinesTime) {
  const struct {
    const char* what;
    int baud;
    int samples;
    std::function<int(const char*, int)> read;
    int timeoutMs;
  } rows[] = {
      {"intensities at 57600", 57600, 100,
       [](const char* path, int n) {
         std::vector<int> values(static_cast<std::size_t>(n));
         return ZeltoCom_Sequence_ReadIntensity(path, 1, values.data());
       },
       3 * 100 * 2 + 20},
      {"x, y and intensity at 9600", 9600, 20,
       [](const char* path, int n) {
         std::vector<float> x(static_cast<std::size_t>(n)), y(x.size());
         std::vector<int> intensity(x.size());
         return ZeltoCom_Sequence_ReadxyI(path, 1, x.data(), y.data(), intensity.data());
       },
       22 * 20 * 2 + 20},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    zeltosim::SimPort& port = OpenPort(Model("ZS0001", "Zelto 05-P"), Line(row.baud));
    const char* path = port.path().c_str();
    ASSERT_EQ(ZeltoCom_Sequence_Setup(path, 0, 1, 0, row.samples, 0), 1) << LastError();
    ASSERT_EQ(ZeltoCom_Sequence_Capture(path, 1), 1) << LastError();
    ExpectTimeout(
        row.timeoutMs, [&](int ms) { port.master().setAnswerDelayMs(ms); },
        [&] { return row.read(path, row.samples); },
        "0: Unexpected error detected while trying to retrieve the test results");
    ZeltoCom_CloseAll();
  }
}
