// Handing a master's line to daisy-chained instruments and back.
#include "bench.hpp"
#include "device/bus.hpp"
#include "frame/errors.hpp"
#include "frame/registry.hpp"

using namespace zeltocom;

namespace {

class BusTest : public SimBench {
 protected:
  void SetUp() override {
    SimBench::SetUp();
    zeltosim::SimPort& port = AddPort(Analyser("MASTER1"));
    zeltosim::Config withoutEot = Analyser("CHAIN01");
    withoutEot.eot = false;
    port.chain(withoutEot);
    zeltosim::Config withEot = Analyser("CHAIN02");
    withEot.eot = true;
    port.chain(withEot);
    Publish();
    ASSERT_EQ(ZeltoCom_Open(port.path().c_str(), port.baud()), 1) << LastError();
    master_ = Record(port);
    port.clearLog();
  }
  zeltosim::SimPort& Port() { return *ports_.front(); }
  int BusGet(const char* serial) {
    t_comresponse response;
    return CMD_BusGet(master_.get(), serial, &response);
  }
  int ChainLength() const { return PortsList_Count(&master_->chain); }
  PortRef master_;
};

}  // namespace

TEST_F(BusTest, AChainedInstrumentIsLearntAndHoldsTheLine) {
  ASSERT_EQ(BusGet("chain01"), 1);
  ASSERT_EQ(ChainLength(), 1);
  const PortRef chained = PortsList_GetByIndex(&master_->chain, 0);
  EXPECT_EQ(chained->serialNumber.view(), "CHAIN01");
  EXPECT_EQ(chained->parent, master_.get());
  EXPECT_EQ(chained->fd, master_->fd);
  EXPECT_EQ(chained->baudrate.load(), master_->baudrate.load());
  EXPECT_EQ(chained->eotFormat.view(), "\r\n");
  EXPECT_EQ(master_->busOwner, chained.get());
  EXPECT_EQ(master_->busState, 0);

  // Asking again for the holder costs no traffic.
  t_comresponse response;
  EXPECT_EQ(CMD_BusGet(chained.get(), "CHAIN01", &response), 1);
  EXPECT_EQ(response.data, "OK");
  EXPECT_EQ(Port().countReceived("BUSGETCHAIN01"), 1);
}

TEST_F(BusTest, SwitchingHoldersFreesTheLineFirst) {
  ASSERT_EQ(BusGet("CHAIN01"), 1);
  ASSERT_EQ(BusGet("CHAIN02"), 1);
  EXPECT_EQ(ChainLength(), 2);
  EXPECT_EQ(master_->busOwner->serialNumber.view(), "CHAIN02");
  EXPECT_EQ(master_->busOwner->eotFormat.view(), "\r\n\x04");
  std::vector<std::string> sent;
  for (const zeltosim::ReceivedLine& line : Port().lineLog()) sent.push_back(line.text);
  EXPECT_EQ(sent, (std::vector<std::string>{"BUSGETCHAIN01", "BUSFREE", "BUSGETCHAIN02"}));

  // Back to a known instrument: its own end marker is used, no new record.
  ASSERT_EQ(BusGet("CHAIN01"), 1);
  EXPECT_EQ(ChainLength(), 2);
}

TEST_F(BusTest, TheMastersOwnSerialKeepsTheLineFree) {
  // The master holds its line, so its own serial needs no exchange...
  EXPECT_EQ(BusGet("MASTER1"), 1);
  EXPECT_EQ(Port().countReceived("BUSGETMASTER1"), 0);
  // ...but taking it back from a chained instrument does.
  ASSERT_EQ(BusGet("CHAIN01"), 1);
  ASSERT_EQ(BusGet("MASTER1"), 1);
  EXPECT_EQ(Port().countReceived("BUSGETMASTER1"), 1);
  EXPECT_EQ(master_->busOwner, master_.get());
  EXPECT_EQ(master_->busState, 1);
  EXPECT_EQ(ChainLength(), 1);
}

TEST_F(BusTest, ARefusalLeavesThePictureUnchanged) {
  // From a free line: one BUSFREE, and no error text.
  EXPECT_EQ(BusGet("NOSUCH9"), 0);
  EXPECT_EQ(Port().countReceived("BUSFREE"), 1);
  EXPECT_EQ(master_->busOwner, master_.get());
  EXPECT_EQ(master_->busState, 1);
  EXPECT_EQ(LastError(), "");

  // From a chained holder: that one is asked to free the line first.
  ASSERT_EQ(BusGet("CHAIN01"), 1);
  Port().clearLog();
  EXPECT_EQ(BusGet("NOSUCH9"), 0);
  EXPECT_EQ(master_->busOwner, master_.get());
  EXPECT_EQ(Port().countReceived("BUSGETNOSUCH9"), 1);
  EXPECT_EQ(Port().countReceived("BUSFREE"), 2);
  EXPECT_EQ(ChainLength(), 1);
}

TEST_F(BusTest, NoAnswerIsReportedOnTheMaster) {
  Port().master().setFault(zeltosim::Fault::Silent);
  EXPECT_EQ(BusGet("CHAIN01"), 0);
  EXPECT_EQ(LastError(), "Syntax error or Timeout in BUSGET");
  EXPECT_EQ(PortError(Port()), "Syntax error or Timeout in BUSGET");
  EXPECT_EQ(master_->busState, 1);
}

