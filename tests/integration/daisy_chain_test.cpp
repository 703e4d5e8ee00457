// Instruments behind a master: adding and removing them, talking to them
// through the master's line, and the last answer of a port.
#include "bench.hpp"
#include "frame/registry.hpp"

namespace {

using Lines = std::vector<std::string>;

class DaisyChainTest : public SimBench {
 protected:
  void SetUp() override {
    SimBench::SetUp();
    zeltosim::SimPort& port = AddPort(Analyser("MASTER1"));
    port.chain(Analyser("CHAIN01"));
    zeltosim::Config withEot = Analyser("CHAIN02");
    withEot.eot = !withEot.eot;  // the chain mixes both framings
    port.chain(withEot);
    spectrometer_ = &port.chain(Spectrometer("SPEC01", "Zelto 01-W"));
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
  zeltosim::Instrument* spectrometer_ = nullptr;
};

}  // namespace

TEST_F(DaisyChainTest, AddingAsksForTheInstrumentAndHandsTheLineBack) {
  ASSERT_EQ(ZeltoCom_DaisyChain_Add(Path(), "CHAIN01"), 1) << LastError();
  EXPECT_EQ(Sent(Port()), (Lines{"BUSFREE", "BUSGETCHAIN01", "BUSFREE"}));
  EXPECT_EQ(Port().busHolder(), "MASTER1");
  EXPECT_EQ(ChainLength(), 1);

  // Known already, or the master itself: nothing on the line.
  Port().clearLog();
  EXPECT_EQ(ZeltoCom_DaisyChain_Add(Path(), "CHAIN01"), 0);
  EXPECT_EQ(LastError(), "Device has already been added");
  EXPECT_EQ(ZeltoCom_DaisyChain_Add(Path(), "MASTER1"), 1);
  EXPECT_TRUE(Sent(Port()).empty());

  // Nobody answers "OK" to an unknown serial number; the line is still handed back.
  EXPECT_EQ(ZeltoCom_DaisyChain_Add(Path(), "NOBODY"), 0);
  EXPECT_EQ(LastError(), "Communication error");
  EXPECT_EQ(Sent(Port()).back(), "BUSFREE");
  EXPECT_EQ(ChainLength(), 1);
}

TEST_F(DaisyChainTest, AMasterWithoutBusCommandsCannotLendItsLine) {
  Port().master().setFault(zeltosim::Fault::SyntaxErrorAll);
  EXPECT_EQ(ZeltoCom_DaisyChain_Add(Path(), "CHAIN01"), 0);
  EXPECT_EQ(LastError(), "Unable to get the bus");
  EXPECT_EQ(ChainLength(), 0);
}

TEST_F(DaisyChainTest, SendsReachTheAddressedInstrumentInEitherFraming) {
  ASSERT_EQ(ZeltoCom_DaisyChain_Add(Path(), "CHAIN01"), 1);
  ASSERT_EQ(ZeltoCom_DaisyChain_Add(Path(), "CHAIN02"), 1);
  Port().clearLog();
  EXPECT_EQ(SendTo("CHAIN01", "GETSERIAL"), "CHAIN01");
  EXPECT_EQ(SendTo("CHAIN02", "GETSERIAL"), "CHAIN02");
  EXPECT_EQ(SendTo("MASTER1", "GETSERIAL"), "MASTER1");
  EXPECT_EQ(Sent(Port()), (Lines{"BUSGETCHAIN01", "GETSERIAL", "BUSFREE", "BUSGETCHAIN02",
                                 "GETSERIAL", "BUSFREE", "BUSGETMASTER1", "GETSERIAL"}));

  // The holder keeps the line: a second send needs no hand-over.
  Port().clearLog();
  EXPECT_EQ(SendTo("MASTER1", "GETSERIAL"), "MASTER1");
  EXPECT_EQ(Sent(Port()), (Lines{"GETSERIAL"}));
}

TEST_F(DaisyChainTest, AddingWhileAChainedInstrumentHoldsTheLineKeepsSendsAddressed) {
  ASSERT_EQ(ZeltoCom_DaisyChain_Add(Path(), "CHAIN01"), 1);
  EXPECT_EQ(SendTo("CHAIN01", "GETSERIAL"), "CHAIN01");
  ASSERT_EQ(ZeltoCom_DaisyChain_Add(Path(), "CHAIN02"), 1);
  // The adding handed the line back to the master; the next send asks again.
  EXPECT_EQ(SendTo("CHAIN01", "GETSERIAL"), "CHAIN01");
}

TEST_F(DaisyChainTest, TheLastAnswerOfAPortIsWhoeverGaveIt) {
  char buffer[256] = "untouched";
  EXPECT_EQ(ZeltoCom_GetResponseByPort(Path(), buffer), 1);
  EXPECT_STREQ(buffer, "");
  ASSERT_EQ(ZeltoCom_DaisyChain_Add(Path(), "CHAIN02"), 1);
  ASSERT_EQ(ZeltoCom_DaisyChain_Send(Path(), "CHAIN02", "GETSERIAL", nullptr), 1);
  EXPECT_EQ(ZeltoCom_GetResponseByPort(Path(), buffer), 1);
  EXPECT_STREQ(buffer, "CHAIN02");

  EXPECT_EQ(ZeltoCom_GetResponseByPort("/dev/pts/none", buffer), 0);
  EXPECT_EQ(LastError(), "The device path is not in use");
  ZeltoCom_CloseAll();
  EXPECT_EQ(ZeltoCom_GetResponseByPort(Path(), buffer), 0);
  EXPECT_EQ(LastError(), "No ports have been opened");
}

TEST_F(DaisyChainTest, RemovingForgetsWithoutTraffic) {
  ASSERT_EQ(ZeltoCom_DaisyChain_Add(Path(), "CHAIN01"), 1);
  ASSERT_EQ(ZeltoCom_DaisyChain_Add(Path(), "CHAIN02"), 1);
  EXPECT_EQ(SendTo("CHAIN02", "GETSERIAL"), "CHAIN02");
  Port().clearLog();

  EXPECT_EQ(ZeltoCom_DaisyChain_Del(Path(), "MASTER1"), 1);
  EXPECT_EQ(ZeltoCom_DaisyChain_Del(Path(), "NOBODY"), 0);
  EXPECT_EQ(LastError(), "Device not found");
  EXPECT_EQ(ZeltoCom_DaisyChain_Del(Path(), "CHAIN02"), 1);  // the holder goes
  EXPECT_EQ(ChainLength(), 1);
  EXPECT_EQ(ZeltoCom_DaisyChain_Clear(Path()), 1);
  EXPECT_EQ(ZeltoCom_DaisyChain_Clear(Path()), 1);
  EXPECT_EQ(ChainLength(), 0);
  EXPECT_TRUE(Sent(Port()).empty());
  EXPECT_EQ(ZeltoCom_DaisyChain_Del("/dev/pts/none", "CHAIN01"), 0);
  EXPECT_EQ(LastError(), "The port is not being used");

  // Once forgotten, a send learns the instrument again.
  EXPECT_EQ(SendTo("CHAIN01", "GETSERIAL"), "CHAIN01");
  EXPECT_EQ(ChainLength(), 1);
}

TEST_F(DaisyChainTest, AChainedSpectrometerIsCapturedWithItsOwnSettings) {
  EXPECT_EQ(ZeltoCom_DaisyChain_SpectrometerCapture(Path(), "SPEC01", 0, 1, 20.0f), 1)
      << LastError();
  EXPECT_EQ(ZeltoCom_DaisyChain_SpectrometerDark(Path(), "SPEC01", 0, 1, 20.0f), 1)
      << LastError();
  EXPECT_EQ(spectrometer_->captures(), 2);
  EXPECT_EQ(Port().busHolder(), "SPEC01");  // the line stays with it
  const zeltocom::PortRef record = zeltocom::PortsList_GetBySerialNumber(
      &Record(Port())->chain, "SPEC01");
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->deviceType, 7);
  EXPECT_EQ(Record(Port())->hardwareDescriptor.view(), "");  // the master was not asked

  EXPECT_EQ(ZeltoCom_DaisyChain_SpectrometerCapture(Path(), "CHAIN01", 0, 0, 0), -1);
  EXPECT_EQ(LastError(), "Device is not a Spectrometer");
  EXPECT_EQ(ZeltoCom_DaisyChain_SpectrometerDark(Path(), "NOBODY", 0, 0, 0), 0);
}
