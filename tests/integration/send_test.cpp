// The generic send: wait rules, errors, and the settings cache following the
// commands.
#include <cstring>
#include <tuple>

#include "bench.hpp"
#include "frame/registry.hpp"

using testlines::Clock;
using testlines::MsSince;
using zeltocom::PortRef;

namespace {

class SendTest : public SimBench {
 protected:
  void SetUp() override {
    SimBench::SetUp();
    ZeltoCom_SetResponseTimeout(400);
  }
  // These waits apply to instruments that end their answers with CR LF only.
  static zeltosim::Config PlainAnalyser(int fibers) {
    zeltosim::Config config = Analyser("ZS0001", fibers);
    config.eot = false;
    return config;
  }
  static int Lines(const std::string& text) {
    return static_cast<int>(std::count(text.begin(), text.end(), '\n')) + (text.empty() ? 0 : 1);
  }
};

}  // namespace

TEST_F(SendTest, CommandsAreSentAsTypedAndFailuresSayWhy) {
  zeltosim::SimPort& port = OpenQuiet(Analyser("ZS0001", 3));
  ASSERT_EQ(Send(port, "getnfib"), 1) << LastError();
  EXPECT_STREQ(answer_, "3");
  EXPECT_EQ(port.lineLog().back().text, "getnfib");
  EXPECT_EQ(Record(port)->settings.numFibers, 3);

  EXPECT_EQ(Outcome(Send(port, "NOSUCHCOMMAND")), "0: Syntax error");
  EXPECT_EQ(PortError(port), "Syntax error");
  port.master().setFault(zeltosim::Fault::Silent);
  EXPECT_EQ(Outcome(Send(port, "GETSERIAL")), "0: Timeout");
  // A success clears both texts.
  port.master().setFault(zeltosim::Fault::None);
  EXPECT_EQ(Send(port, "GETSERIAL"), 1);
  EXPECT_EQ(LastError(), "");
  EXPECT_EQ(PortError(port), "");
}

TEST_F(SendTest, GetAllWaitsForOneLinePerFibre) {
  zeltosim::SimPort& port = OpenQuiet(PlainAnalyser(3));
  ASSERT_EQ(Send(port, "C4"), 1) << LastError();
  ZeltoCom_SetResponseTimeout(3000);
  auto start = Clock::now();
  ASSERT_EQ(Send(port, "GETRGBIALL"), 1) << LastError();
  // Ends at the third line feed, long before the time-out.
  EXPECT_LT(MsSince(start), 1500);
  EXPECT_EQ(Lines(answer_), 3);
  // The fibre count was asked first, once.
  EXPECT_EQ(port.countReceived("GETNFIB"), 1);

  // Fewer lines than fibres run into the time-out and are still returned.
  Record(port)->settings.numFibers = 4;
  ZeltoCom_SetResponseTimeout(400);
  start = Clock::now();
  EXPECT_EQ(Send(port, "GETXYALL"), 1);
  EXPECT_GE(MsSince(start), 350);
  EXPECT_EQ(Lines(answer_), 3);
  EXPECT_EQ(LastError(), "");
}

TEST_F(SendTest, ALateAnswerTeachesTheCacheNothing) {
  zeltosim::SimPort& port = OpenQuiet(PlainAnalyser(2));
  const PortRef record = Record(port);
  ASSERT_EQ(Send(port, "GETFACTOR"), 1);
  ASSERT_EQ(record->settings.current->factor, 1);
  // A mirroring line answers "GETFACTORALL" with one line where two are
  // awaited: the answer comes back late.
  port.master().setFault(zeltosim::Fault::Echo);
  record->settings.numFibers = 2;
  EXPECT_EQ(Send(port, "GETFACTORALL"), 1);
  EXPECT_STREQ(answer_, "GETFACTORALL");
  EXPECT_EQ(record->settings.current->factor, 1);
  // The rest may still come, so the line is brought back in step before the
  // next command: a mirror never tells its serial number, and that command
  // is held back as a time-out...
  EXPECT_EQ(Outcome(Send(port, "GETFACTOR")), "0: Timeout");
  EXPECT_EQ(record->settings.current->factor, 1);
  // ...while an instrument does, and is asked.
  port.master().setFault(zeltosim::Fault::None);
  port.clearLog();
  EXPECT_EQ(Send(port, "GETFACTOR"), 1) << LastError();
  EXPECT_EQ(Sent(port), (std::vector<std::string>{"GETSERIAL", "GETFACTOR"}));
}

TEST_F(SendTest, PagedAnswersEndWhenTheInstrumentFallsSilent) {
  zeltosim::SimPort& port = OpenQuiet(PlainAnalyser(2));
  for (const char* command : {"GETSTATUS", "GETINFO", "HELP"}) {
    const auto start = Clock::now();
    ASSERT_EQ(Send(port, command), 1) << command;
    EXPECT_GT(Lines(answer_), 3) << command;
    EXPECT_GE(MsSince(start), 190) << command;
  }
  EXPECT_NE(std::string(answer_).find("GETSERIAL"), std::string::npos);
}

TEST_F(SendTest, SetBaudMovesTheLineToTheNewRate) {
  zeltosim::SimPort& port = OpenQuiet(Analyser("ZS0001"));
  ASSERT_EQ(Send(port, "SETBAUD115200"), 1) << LastError();
  EXPECT_EQ(port.baud(), 115200);
  EXPECT_EQ(ZeltoCom_GetBaudrate(port.path().c_str()), 115200);
  ASSERT_EQ(Send(port, "GETSERIAL"), 1) << LastError();
  EXPECT_STREQ(answer_, "ZS0001");

  // A change that times out still moves the library's side of the line.
  port.master().setFault(zeltosim::Fault::Silent);
  EXPECT_EQ(Outcome(Send(port, "SETBAUD230400")), "0: Timeout");
  EXPECT_EQ(ZeltoCom_GetBaudrate(port.path().c_str()), 230400);
  port.master().setFault(zeltosim::Fault::None);
  EXPECT_EQ(Send(port, "GETSERIAL"), 0);
  EXPECT_EQ(port.lineLog().back().lineBaud, 230400);
}

TEST_F(SendTest, CacheFollowsSetAndPutCommands) {
  zeltosim::SimPort& port = OpenQuiet(Analyser("ZS0001"));
  const PortRef record = Record(port);
  ASSERT_EQ(Send(port, "SETFACTOR3"), 1);
  ASSERT_EQ(Send(port, "putaverage4"), 1);
  EXPECT_EQ(record->settings.adjustmentSet, 0);
  EXPECT_EQ(record->settings.current->factor, 3);
  EXPECT_EQ(record->settings.current->averages, 4);
  ASSERT_EQ(Send(port, "SETLIN"), 1);
  EXPECT_EQ(record->settings.current->intensityMode, zeltocom::IntensityMode::Linear);

  // Another adjustment set starts unknown; the old one keeps its values.
  ASSERT_EQ(Send(port, "SETCALIBRATION05"), 1);
  EXPECT_EQ(record->settings.adjustmentSet, 5);
  EXPECT_EQ(record->settings.current, &record->settings.sets[5]);
  EXPECT_EQ(record->settings.current->factor, -1);
  EXPECT_EQ(record->settings.sets[0].factor, 3);
  // A set beyond the last the cache keeps is not followed, even when taken.
  port.master().setAnswer("SETCALIBRATION99", "OK");
  ASSERT_EQ(Send(port, "SETCALIBRATION99"), 1);
  EXPECT_EQ(record->settings.adjustmentSet, 5);
  EXPECT_EQ(record->settings.current, &record->settings.sets[5]);

  ASSERT_EQ(Send(port, "GETFACTOR"), 1);
  EXPECT_EQ(record->settings.current->factor, 1);
  ASSERT_EQ(Send(port, "SETFACTOR7"), 1);
  ASSERT_EQ(Send(port, "RESETUSERCAL"), 1);
  const zeltocom::FiberSettings& reset = *record->settings.current;
  EXPECT_EQ(std::tie(reset.factor, reset.averages, reset.pwm, reset.intensityMode),
            std::make_tuple(1, 1, 0, zeltocom::IntensityMode::Logarithmic));
  EXPECT_FLOAT_EQ(reset.customTime, -1.0f);
}

TEST_F(SendTest, CacheFollowsIdentificationQueries) {
  zeltosim::Config config = Spectrometer("ZS0001", "Zelto 01-W2");
  config.firmware = "S1.90";
  zeltosim::SimPort& port = OpenQuiet(config);
  const PortRef record = Record(port);
  ASSERT_EQ(Send(port, "GETHW"), 1);
  EXPECT_EQ(record->hardwareDescriptor.view(), "Zelto 01-W2");
  EXPECT_EQ(record->deviceType, 7);
  ASSERT_EQ(Send(port, "GETVERSION"), 1);
  EXPECT_EQ(record->firmwareNumber, 190);
  // Microseconds on the wire, milliseconds in the cache.
  ASSERT_EQ(Send(port, "PUTCUSTOMTIME0002500"), 1);
  EXPECT_FLOAT_EQ(record->settings.current->customTime, 2.5f);
  ASSERT_EQ(Send(port, "PUTPWM1"), 1);
  EXPECT_EQ(record->settings.current->pwm, 1);
}

// The buffer holds the answer and its terminating zero, or the answer is cut
// and the record keeps it whole.
TEST_F(SendTest, AnswersAreCutToTheResponseBufferSize) {
  zeltosim::SimPort& port = OpenQuiet(Analyser("ZS0001"));
  ASSERT_EQ(Send(port, "HELP"), 1);
  const std::string whole = answer_;
  ASSERT_GT(whole.size(), 300u);
  EXPECT_EQ(ZeltoCom_SetResponseBufferSize(-1), -1);
  const int size = static_cast<int>(whole.size());
  for (const int buffer : {256, size, size + 1, 0}) {
    SCOPED_TRACE(buffer);
    const std::size_t kept =
        buffer == 0 ? whole.size()
                    : std::min<std::size_t>(whole.size(), static_cast<std::size_t>(buffer - 1));
    ASSERT_EQ(ZeltoCom_SetResponseBufferSize(buffer), 1);
    std::memset(answer_, '#', sizeof answer_);
    EXPECT_EQ(Outcome(ZeltoCom_Send(port.path().c_str(), "HELP", answer_)),
              kept < whole.size() ? "0: Answer longer than the response buffer" : "1");
    EXPECT_EQ(std::string(answer_), whole.substr(0, kept));
    EXPECT_EQ(answer_[kept + 1], '#');
    EXPECT_EQ(Record(port)->lastResponse.Get(), whole);
  }
}
