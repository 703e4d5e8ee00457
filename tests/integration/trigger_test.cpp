// The external trigger through the C interface: its set-up commands, a
// listener's life from Listen to the host's fetch, and reports that come
// while the host talks to the instrument.
#include <atomic>
#include <chrono>
#include <thread>

#include "bench.hpp"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

class TriggerTest : public SimBench {
 protected:
  // The trigger's set-up lines that reached the instrument.
  static std::vector<std::string> TriggerLines(const zeltosim::SimPort& port) {
    std::vector<std::string> lines;
    for (const std::string& line : Sent(port)) {
      if (line.find("EXTERNAL") != std::string::npos || line.find("TRIGGER") != std::string::npos) {
        lines.push_back(line);
      }
    }
    return lines;
  }

  // What isFinished says once the listener has ended (0 after 5 s).
  static int AwaitEnd(const zeltosim::SimPort& port) {
    const auto giveUp = Clock::now() + 5s;
    int state = 0;
    while ((state = ZeltoCom_ExternalTrigger_isFinished(port.path().c_str())) == 0 &&
           Clock::now() < giveUp) {
      std::this_thread::sleep_for(5ms);
    }
    return state;
  }

  static std::string Response(const zeltosim::SimPort& port) {
    char text[512] = {};
    EXPECT_EQ(ZeltoCom_GetResponseByPort(port.path().c_str(), text), 1) << LastError();
    return text;
  }

  int Enable(const zeltosim::SimPort& port, const char* outputType, int range = 3) {
    return ZeltoCom_ExternalTrigger_Enable(port.path().c_str(), range, 0, outputType, 0, 0, 1);
  }

  int Listen(const zeltosim::SimPort& port) {
    return ZeltoCom_ExternalTrigger_Listen(port.path().c_str());
  }
};

TEST_F(TriggerTest, SetUpSendsTheInstrumentsCommandsAndRefusesBadArguments) {
  zeltosim::SimPort& analyser = OpenPort(Analyser("ZA0001"));
  zeltosim::SimPort& spectrometer = AddPort(Spectrometer("ZW0001"));
  Publish();
  ASSERT_EQ(ZeltoCom_Open(spectrometer.path().c_str(), spectrometer.baud()), 1) << LastError();
  const char* a = analyser.path().c_str();
  struct Row {
    zeltosim::SimPort& port;
    int range, pwm;
    const char* type;
    unsigned pre, post;
    int save;
    std::string outcome;
    std::string lines;
  };
  const Row rows[] = {
      {analyser, 0, 1, " xyi ", 0, 999, 1, "1",
       "SETEXTERNALCAPTURE16 SETEXTERNALOUTPUTXYI SETTRIGGERPREDELAY001 SETTRIGGERPOSTDELAY999"},
      {analyser, 5, 0, "None", 5, 0, 0, "1",
       "PUTEXTERNALCAPTURE05 PUTEXTERNALOUTPUTNONE PUTTRIGGERPREDELAY005 PUTTRIGGERPOSTDELAY001"},
      {spectrometer, 1, 0, "rgbi", 1000, 65000, 1, "1",
       "SETEXTERNALCAPTURE01 SETEXTERNALOUTPUTRGBI SETTRIGGERPREDELAY1000 "
       "SETTRIGGERPOSTDELAY65000"},
      {analyser, 6, 0, "XYI", 0, 0, 1, "0: Wrong capture range given", ""},
      {analyser, -1, 0, "XYI", 0, 0, 1, "0: Wrong capture range given", ""},
      {analyser, 1, 0, "XY", 0, 0, 1, "0: Wrong capture type given", ""},
      {analyser, 1, 0, nullptr, 0, 0, 1, "0: Wrong capture type given", ""},
      {analyser, 1, 0, "XYI", 1000, 0, 1, "0: Wrong pre-delay given", ""},
      {analyser, 1, 0, "XYI", 0, 1000, 1, "0: Wrong post-delay given", ""},
      {spectrometer, 1, 0, "XYI", 65001, 0, 1, "0: Wrong pre-delay given", ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(&row - rows);
    row.port.clearLog();
    EXPECT_EQ(Outcome(ZeltoCom_ExternalTrigger_Enable(row.port.path().c_str(), row.range, row.pwm,
                                                      row.type, row.pre, row.post, row.save)),
              row.outcome);
    EXPECT_EQ(TriggerLines(row.port), Words(row.lines));
  }
  for (const auto& [save, line] :
       {std::pair{1, "SETEXTERNALCAPTURE00"}, {0, "PUTEXTERNALCAPTURE00"}}) {
    analyser.clearLog();
    EXPECT_EQ(Outcome(ZeltoCom_ExternalTrigger_Disable(a, save)), "1");
    EXPECT_EQ(TriggerLines(analyser), Words(line));
  }

  // An instrument without a trigger input refuses its commands.
  analyser.master().setFault(zeltosim::Fault::SyntaxErrorAll);
  const std::string unavailable =
      "-1: External Trigger does not seem to be available in your device";
  EXPECT_EQ(Outcome(Enable(analyser, "XYI")), unavailable);
  EXPECT_EQ(Outcome(ZeltoCom_ExternalTrigger_Disable(a, 1)), unavailable);
  EXPECT_EQ(Outcome(Listen(analyser)), unavailable);
}

// A listener's life in both framings: aborted, it stays so until the next
// Listen; reading the last response neither ends it nor sees an answer from
// before Listen; fired, it leaves "OK" or the readings; unplugged, it fails.
TEST_F(TriggerTest, AFiredTriggerLeavesOkOrTheReadingsForTheHost) {
  for (const bool eot : {false, true}) {
    SCOPED_TRACE(eot ? "eot" : "no eot");
    zeltosim::Config config = Analyser(eot ? "ZA0002" : "ZA0001");
    config.eot = eot;
    zeltosim::SimPort& port = OpenPort(config);
    const char* path = port.path().c_str();
    port.master().setFiber(1, zeltosim::Fiber{0.6, 0.3, 0.1, 500.0});
    EXPECT_EQ(Outcome(Listen(port)), "0: External Trigger is not enabled");
    EXPECT_EQ(ZeltoCom_ExternalTrigger_isFinished(path), 0);
    EXPECT_EQ(ZeltoCom_ExternalTrigger_Abort(path), 1);  // never listened
    ASSERT_EQ(Outcome(Enable(port, "NONE")), "1");
    ASSERT_EQ(Listen(port), 1);
    const auto start = Clock::now();
    EXPECT_EQ(ZeltoCom_ExternalTrigger_Abort(path), 1);
    EXPECT_LT(Clock::now() - start, 1s);
    EXPECT_EQ(ZeltoCom_ExternalTrigger_isFinished(path), -2);
    EXPECT_EQ(ZeltoCom_ExternalTrigger_isFinished(path), -2);

    ASSERT_EQ(Send(port, "GETSERIAL"), 1);
    ASSERT_EQ(Outcome(Listen(port)), "1");
    // A second Listen neither asks the instrument nor stops the first.
    port.clearLog();
    ASSERT_EQ(Listen(port), 1);
    EXPECT_TRUE(Sent(port).empty());
    EXPECT_EQ(Response(port), "");
    EXPECT_EQ(ZeltoCom_ExternalTrigger_isFinished(path), 0);
    port.fireTrigger();
    EXPECT_EQ(AwaitEnd(port), 1) << LastError();
    EXPECT_EQ(Response(port), "OK");

    // One "x y I" line per fibre, as the instrument's own queries give them.
    ASSERT_EQ(Outcome(Enable(port, "xyi")), "1");
    ASSERT_EQ(Outcome(Listen(port)), "1");
    port.fireTrigger();
    ASSERT_EQ(AwaitEnd(port), 1) << LastError();
    const std::string message = Response(port);
    std::string expected;
    for (const char* fibre : {"01", "02"}) {
      ASSERT_EQ(Send(port, (std::string("GETXY") + fibre).c_str()), 1);
      const std::string xy = answer_;
      ASSERT_EQ(Send(port, (std::string("GETINTENSITY") + fibre).c_str()), 1);
      expected += (expected.empty() ? "" : "\r\n") + xy + " " + answer_;
    }
    EXPECT_EQ(message, expected);

    ASSERT_EQ(Listen(port), 1);
    port.unplug();
    EXPECT_EQ(AwaitEnd(port), -1);
    EXPECT_EQ(ZeltoCom_Close(path), 1);
  }
}

// A trigger that fires while the host talks to the instrument, with no
// listener waiting: its reports are set aside as the port's last response,
// never handed back as the answer to a command.
TEST_F(TriggerTest, ReportsThatComeDuringAnExchangeAreNeverItsAnswer) {
  // A line fast enough to carry a report every 37 ms and the host's exchanges.
  zeltosim::LineOptions line = At(57600);
  line.lineDelay = false;
  zeltosim::SimPort& port = OpenPort(Analyser("ZA0001"), line);
  port.master().setFiber(1, zeltosim::Fiber{0.1, 0.2, 0.7, 800.0});
  ASSERT_EQ(ZeltoCom_Capture(port.path().c_str(), 0, 0, 0), 1);
  ASSERT_EQ(Send(port, "GETRGBI01"), 1);
  const std::string fibre1 = answer_;
  ASSERT_EQ(Send(port, "GETRGBI02"), 1);
  const std::string fibre2 = answer_;
  ASSERT_NE(fibre1, fibre2);

  ASSERT_EQ(Enable(port, "RGBI"), 1);
  std::atomic<bool> firing{true};
  std::thread trigger([&] {
    while (firing) {
      port.fireTrigger();
      std::this_thread::sleep_for(37ms);
    }
  });
  // The serial number never reads as a report; the reading of fibre 1 reads
  // as one line of a report, so when a report came with it, the library may
  // have to say it cannot tell them apart, but never answers with another
  // fibre's reading.
  int serials = 0;
  int readings = 0;
  const int capturesBefore = port.master().captures();
  const auto start = Clock::now();
  // Enough exchanges to meet reports, however slow the line or the machine.
  const auto enough = [&] { return Clock::now() - start > (serials > 100 ? 1500ms : 8000ms); };
  for (int i = 0; !enough(); ++i) {
    std::this_thread::sleep_for(3ms);
    const bool reading = i % 3 == 2;
    const int result = Send(port, reading ? "GETRGBI01" : "GETSERIAL");
    if (reading) {
      if (result == 1) {
        ++readings;
        EXPECT_EQ(answer_, fibre1) << i;
      } else {
        EXPECT_EQ(LastError(), "A trigger report came with the answer and cannot be told from it");
      }
      continue;
    }
    EXPECT_EQ(result, 1) << i << ": " << LastError();
    if (result != 1) continue;
    ++serials;
    EXPECT_STREQ(answer_, "ZA0001") << i;
  }
  firing = false;
  trigger.join();
  EXPECT_GT(serials, 100);
  EXPECT_GT(readings, 0);
  EXPECT_GT(port.master().captures() - capturesBefore, 20);
  // A report that came last is the port's last response, whole.
  std::this_thread::sleep_for(100ms);
  port.fireTrigger();
  std::this_thread::sleep_for(100ms);
  ASSERT_EQ(Send(port, "GETSERIAL"), 1);
  EXPECT_EQ(Response(port), fibre1 + "\r\n" + fibre2);

  // Disabled, nothing is expected any more: a reading is taken as it comes,
  // without a second question.
  ASSERT_EQ(ZeltoCom_ExternalTrigger_Disable(port.path().c_str(), 1), 1);
  port.clearLog();
  ASSERT_EQ(Send(port, "GETRGBI01"), 1);
  EXPECT_EQ(Sent(port), (std::vector<std::string>{"GETRGBI01"}));
}

}  // namespace
