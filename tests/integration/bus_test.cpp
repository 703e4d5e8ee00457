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
    port.chain(Analyser("CHAIN01"));
    zeltosim::Config withEot = Analyser("CHAIN02");
    withEot.eot = true;
    port.chain(withEot);
    Publish();
    ASSERT_EQ(ZeltoCom_Open(port.path().c_str(), 57600), 1) << LastError();
    master_ = Record(port);
    port.clearLog();
  }
  zeltosim::SimPort& Port() { return *ports_.front(); }
  int BusGet(const char* serial) {
    t_comresponse response;
    return CMD_BusGet(master_, serial, &response);
  }
  s_CommPort* master_ = nullptr;
};

}  // namespace

TEST_F(BusTest, AChainedInstrumentIsLearntAndHoldsTheLine) {
  ASSERT_EQ(BusGet("chain01"), 1);
  ASSERT_EQ(master_->chain->count, 1);
  s_CommPort* chained = master_->chain->first;
  EXPECT_EQ(chained->serialNumber.view(), "CHAIN01");
  EXPECT_EQ(chained->parent, master_);
  EXPECT_EQ(chained->fd, master_->fd);
  EXPECT_EQ(chained->baudrate, master_->baudrate);
  EXPECT_EQ(chained->eotFormat.view(), "\r\n");
  EXPECT_EQ(master_->busOwner, chained);
  EXPECT_EQ(master_->busState, 0);

  // Asking again for the holder costs no traffic.
  t_comresponse response;
  EXPECT_EQ(CMD_BusGet(chained, "CHAIN01", &response), 1);
  EXPECT_EQ(response.data, "OK");
  EXPECT_EQ(Port().countReceived("BUSGETCHAIN01"), 1);
}

TEST_F(BusTest, SwitchingHoldersFreesTheLineFirst) {
  ASSERT_EQ(BusGet("CHAIN01"), 1);
  ASSERT_EQ(BusGet("CHAIN02"), 1);
  EXPECT_EQ(master_->chain->count, 2);
  EXPECT_EQ(master_->busOwner->serialNumber.view(), "CHAIN02");
  EXPECT_EQ(master_->busOwner->eotFormat.view(), "\r\n\x04");
  std::vector<std::string> sent;
  for (const zeltosim::ReceivedLine& line : Port().lineLog()) sent.push_back(line.text);
  EXPECT_EQ(sent, (std::vector<std::string>{"BUSGETCHAIN01", "BUSFREE", "BUSGETCHAIN02"}));

  // Back to a known instrument: its own end marker is used, no new record.
  ASSERT_EQ(BusGet("CHAIN01"), 1);
  EXPECT_EQ(master_->chain->count, 2);
}

TEST_F(BusTest, TheMastersOwnSerialKeepsTheLineFree) {
  // The master holds its line, so its own serial needs no exchange...
  EXPECT_EQ(BusGet("MASTER1"), 1);
  EXPECT_EQ(Port().countReceived("BUSGETMASTER1"), 0);
  // ...but taking it back from a chained instrument does.
  ASSERT_EQ(BusGet("CHAIN01"), 1);
  ASSERT_EQ(BusGet("MASTER1"), 1);
  EXPECT_EQ(Port().countReceived("BUSGETMASTER1"), 1);
  EXPECT_EQ(master_->busOwner, master_);
  EXPECT_EQ(master_->busState, 1);
  EXPECT_EQ(master_->chain->count, 1);
}

TEST_F(BusTest, ARefusalLeavesThePictureUnchanged) {
  ASSERT_EQ(BusGet("CHAIN01"), 1);
  Port().clearLog();
  EXPECT_EQ(BusGet("NOSUCH9"), 0);
  EXPECT_EQ(master_->busOwner, master_);
  // The previous holder was asked to free the line, then the refused one.
  EXPECT_EQ(Port().countReceived("BUSGETNOSUCH9"), 1);
  EXPECT_EQ(Port().countReceived("BUSFREE"), 2);
  EXPECT_EQ(master_->chain->count, 1);
}

TEST_F(BusTest, ARefusalFromAFreeLineSendsOneBusFree) {
  SetError(nullptr, "");
  EXPECT_EQ(BusGet("NOSUCH9"), 0);
  EXPECT_EQ(Port().countReceived("BUSFREE"), 1);
  EXPECT_EQ(master_->busOwner, master_);
  EXPECT_EQ(master_->busState, 1);
  EXPECT_EQ(master_->chain->count, 0);
  EXPECT_EQ(LastError(), "");
}

TEST_F(BusTest, NoAnswerIsReportedOnTheMaster) {
  Port().master().setFault(zeltosim::Fault::Silent);
  EXPECT_EQ(BusGet("CHAIN01"), 0);
  EXPECT_EQ(LastError(), "Syntax error or Timeout in BUSGET");
  EXPECT_EQ(PortError(Port()), "Syntax error or Timeout in BUSGET");
  EXPECT_EQ(master_->busState, 1);
}

