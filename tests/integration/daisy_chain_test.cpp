// Instruments behind a master: adding and removing them, talking to them
// through the master's line, and capturing from all at once.
#include "bench.hpp"
#include "frame/registry.hpp"

namespace {

using Lines = std::vector<std::string>;

class DaisyChainTest : public SimBench {
 protected:
  void SetUp() override {
    SimBench::SetUp();
    zeltosim::SimPort& port = AddPort(Analyser("MASTER1"));
    chained_.push_back(&port.chain(Analyser("CHAIN01")));
    zeltosim::Config withEot = Analyser("CHAIN02");
    withEot.eot = !withEot.eot;  // the chain mixes both framings
    withEot.firmware = "F2.05";  // old enough to send the 0x04 of a BUSCE answer apart
    chained_.push_back(&port.chain(withEot));
    port.chain(Spectrometer("SPEC01", "Zelto 01-W"));
    Publish();
    ASSERT_EQ(ZeltoCom_Open(port.path().c_str(), port.baud()), 1) << LastError();
    path_ = port.path();
    port.clearLog();
  }
  zeltosim::SimPort& Port() { return *ports_.front(); }
  const char* Path() const { return path_.c_str(); }
  int ChainLength() { return zeltocom::PortsList_Count(&Record(Port())->chain); }
  std::string SendTo(const char* serial, const char* command) {
    char answer[256] = "untouched";
    const int result = ZeltoCom_DaisyChain_Send(Path(), serial, command, answer);
    return result == 1 ? answer : "failed: " + LastError();
  }
  std::string path_;
  std::vector<zeltosim::Instrument*> chained_;

  // The library knows each chained analyser's end-of-answer marker.
  void ExpectOwnFraming() {
    for (const zeltosim::Instrument* chained : chained_) {
      const zeltocom::PortRef record =
          zeltocom::PortsList_GetBySerialNumber(&Record(Port())->chain, chained->serial());
      ASSERT_NE(record, nullptr) << chained->serial();
      EXPECT_EQ(record->eotFormat.view(), chained->eot() ? "\r\n\x04" : "\r\n")
          << chained->serial();
    }
  }
};

}  // namespace

TEST_F(DaisyChainTest, AddingAsksForTheInstrumentAndHandsTheLineBack) {
  ASSERT_EQ(ZeltoCom_DaisyChain_Add(Path(), "CHAIN01"), 1) << LastError();
  EXPECT_EQ(Sent(Port()), (Lines{"BUSFREE", "BUSGETCHAIN01", "BUSFREE"}));
  EXPECT_EQ(Port().busHolder(), "MASTER1");
  ASSERT_EQ(ZeltoCom_DaisyChain_Add(Path(), "CHAIN02"), 1) << LastError();
  ExpectOwnFraming();

  // Known already, or the master itself: nothing on the line.
  Port().clearLog();
  EXPECT_EQ(Outcome(ZeltoCom_DaisyChain_Add(Path(), "CHAIN01")),
            "0: Device has already been added");
  EXPECT_EQ(ZeltoCom_DaisyChain_Add(Path(), "MASTER1"), 1);
  EXPECT_EQ(Outcome(ZeltoCom_DaisyChain_Add(Path(), "NOBODY000000015")),
            "0: The serial number is too long (at most 14 characters)");
  EXPECT_TRUE(Sent(Port()).empty());

  // Nobody answers "OK" to an unknown serial number (of the longest kind);
  // the line is still handed back.
  EXPECT_EQ(Outcome(ZeltoCom_DaisyChain_Add(Path(), "NOBODY00000014")), "0: Communication error");
  EXPECT_EQ(Sent(Port()).back(), "BUSFREE");

  // A master that refuses or ignores bus commands cannot lend its line.
  Port().master().setFault(zeltosim::Fault::SyntaxErrorAll);
  EXPECT_EQ(Outcome(ZeltoCom_DaisyChain_Add(Path(), "SPEC01")), "0: Unable to get the bus");
  Port().master().setFault(zeltosim::Fault::Silent);
  EXPECT_EQ(SendTo("CHAIN01", "GETSERIAL"), "failed: Syntax error or Timeout in BUSGET");
  EXPECT_EQ(PortError(Port()), "Syntax error or Timeout in BUSGET");
  EXPECT_EQ(ChainLength(), 2);
  EXPECT_EQ(Record(Port())->busOwner, Record(Port()).get());
}

TEST_F(DaisyChainTest, SendsLearnAndReachTheAddressedInstrumentAndRemovingForgetsIt) {
  EXPECT_EQ(SendTo("CHAIN01", "GETSERIAL"), "CHAIN01");
  EXPECT_EQ(SendTo("CHAIN02", "GETSERIAL"), "CHAIN02");
  EXPECT_EQ(SendTo("MASTER1", "GETSERIAL"), "MASTER1");
  EXPECT_EQ(Sent(Port()), (Lines{"BUSGETCHAIN01", "GETSERIAL", "BUSFREE", "BUSGETCHAIN02",
                                 "GETSERIAL", "BUSFREE", "BUSGETMASTER1", "GETSERIAL"}));

  // The holder keeps the line: a second send needs no hand-over.
  Port().clearLog();
  EXPECT_EQ(SendTo("MASTER1", "GETSERIAL"), "MASTER1");
  EXPECT_EQ(Sent(Port()), (Lines{"GETSERIAL"}));
  // A refusal takes the line from its holder first and leaves it with the master.
  EXPECT_EQ(SendTo("CHAIN01", "GETSERIAL"), "CHAIN01");
  Port().clearLog();
  EXPECT_EQ(SendTo("NOBODY", "GETSERIAL"), "failed: Device not found");
  EXPECT_EQ(Sent(Port()), (Lines{"BUSFREE", "BUSGETNOBODY", "BUSFREE"}));
  EXPECT_EQ(Record(Port())->busOwner, Record(Port()).get());
  EXPECT_EQ(Port().busHolder(), "MASTER1");
  // Each chained instrument was learnt once, in its own framing.
  EXPECT_EQ(ChainLength(), 2);
  ExpectOwnFraming();

  // Removing forgets without traffic.
  EXPECT_EQ(SendTo("CHAIN02", "GETSERIAL"), "CHAIN02");
  Port().clearLog();
  EXPECT_EQ(ZeltoCom_DaisyChain_Del(Path(), "MASTER1"), 1);
  EXPECT_EQ(Outcome(ZeltoCom_DaisyChain_Del(Path(), "NOBODY")), "0: Device not found");
  EXPECT_EQ(ZeltoCom_DaisyChain_Del(Path(), "CHAIN02"), 1);  // the holder goes
  EXPECT_EQ(ChainLength(), 1);
  EXPECT_EQ(ZeltoCom_DaisyChain_Clear(Path()), 1);
  EXPECT_EQ(ZeltoCom_DaisyChain_Clear(Path()), 1);
  EXPECT_EQ(ChainLength(), 0);
  EXPECT_TRUE(Sent(Port()).empty());
  // The removed holder keeps the line until the master's next exchange frees it.
  EXPECT_EQ(Port().busHolder(), "CHAIN02");
  ASSERT_EQ(Send(Port(), "GETSERIAL"), 1) << LastError();
  EXPECT_STREQ(answer_, "MASTER1");
  EXPECT_EQ(Sent(Port()), (Lines{"BUSFREE", "GETSERIAL"}));
  EXPECT_EQ(Outcome(ZeltoCom_DaisyChain_Del("/dev/pts/none", "CHAIN01")),
            "0: The port is not being used");

  // Once forgotten, a send learns the instrument again.
  EXPECT_EQ(SendTo("CHAIN01", "GETSERIAL"), "CHAIN01");
  EXPECT_EQ(ChainLength(), 1);
}

namespace {

// The lines of the bus and capture protocol, in order.
Lines BusLines(const std::vector<std::string>& sent) {
  Lines bus;
  for (const std::string& line : sent) {
    if (line.starts_with("BUS")) bus.push_back(line);
  }
  return bus;
}

class ChainCaptureTest : public DaisyChainTest {
 protected:
  void SetUp() override {
    DaisyChainTest::SetUp();
    ASSERT_EQ(ZeltoCom_DaisyChain_Add(Path(), "CHAIN01"), 1) << LastError();
    ASSERT_EQ(ZeltoCom_DaisyChain_Add(Path(), "CHAIN02"), 1) << LastError();
    ASSERT_EQ(ZeltoCom_DaisyChain_Add(Path(), "SPEC01"), 1) << LastError();
    Port().clearLog();
  }
  // The chained analysers: their records were learnt by adding them.
  zeltosim::Instrument& Chained(int index) { return *chained_[index]; }
  int Capture() { return ZeltoCom_DaisyChain_Capture(Path(), 0, 3, 0); }
};

}  // namespace

TEST_F(ChainCaptureTest, OneBroadcastThenEachInstrumentIsAskedUntilDone) {
  ASSERT_EQ(Capture(), 1) << LastError();
  // The chained analysers are asked for their settings once, each behind a
  // hand-over; the spectrometer is asked what it is and left out.
  const Lines bus = BusLines(Sent(Port()));
  ASSERT_GE(bus.size(), 11u);
  EXPECT_EQ(
      Lines(bus.begin(), bus.begin() + 11),
      (Lines{"BUSGETCHAIN01", "BUSFREE", "BUSGETCHAIN02", "BUSFREE", "BUSGETSPEC01", "BUSFREE",
             "BUSC3", "BUSCEMASTER1", "BUSCECHAIN01", "BUSCECHAIN02", "BUSCESPEC01"}));
  EXPECT_EQ(
      (std::vector<int>{Port().master().captures(), Chained(0).captures(), Chained(1).captures()}),
      (std::vector<int>{1, 1, 1}));

  // Known settings need no hand-over; the readings come from each instrument.
  Port().clearLog();
  ASSERT_EQ(Capture(), 1) << LastError();
  EXPECT_EQ(BusLines(Sent(Port())).front(), "BUSC3");
  char rgbi[128];
  EXPECT_EQ(ZeltoCom_DaisyChain_Send(Path(), "CHAIN02", "GETRGBI01", rgbi), 1) << LastError();
}

// With a fixed time-out nothing is asked before the broadcast, not even by
// the instrument that holds the line.
TEST_F(ChainCaptureTest, AnInstrumentThatNeverEndsTimesOutAndTheLineIsFreed) {
  ASSERT_EQ(ZeltoCom_DaisyChain_Send(Path(), "CHAIN01", "GETSERIAL", nullptr), 1);
  ZeltoCom_SetResponseTimeout(200);
  ASSERT_EQ(ZeltoCom_SetResponseTimeoutAuto(Path(), 0), 1);
  Chained(1).setBusCapture(zeltosim::BusCapture::NeverDone);
  Port().clearLog();
  const auto start = testlines::Clock::now();
  EXPECT_EQ(Outcome(Capture()), "0: Timeout");
  EXPECT_LT(testlines::MsSince(start), 10000);
  EXPECT_EQ(Sent(Port()).front(), "BUSC3");
  EXPECT_EQ(Sent(Port()).back(), "BUSFREE");
  EXPECT_EQ(Port().busHolder(), "MASTER1");
}

// A set chosen for the whole bus is followed by every cache of the chain.
TEST_F(ChainCaptureTest, ABusWideSetIsFollowedByEveryCacheOfTheChain) {
  Port().master().setAnswer("BUSSETCALIBRATION05", "OK");
  ASSERT_EQ(ZeltoCom_Send(Path(), "BUSSETCALIBRATION05", nullptr), 1) << LastError();
  EXPECT_EQ(Record(Port())->settings.adjustmentSet, 5);
  for (const char* serial : {"CHAIN01", "CHAIN02"}) {
    EXPECT_EQ(zeltocom::PortsList_GetBySerialNumber(&Record(Port())->chain, serial)
                  ->settings.adjustmentSet,
              5)
        << serial;
  }
}
