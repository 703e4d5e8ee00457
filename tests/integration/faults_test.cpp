// Instruments that trickle, babble or are unplugged: every call still
// returns, within its time-outs, with a clear error.
#include <filesystem>
#include <future>

#include "bench.hpp"

using namespace testlines;
namespace fs = std::filesystem;

namespace {

using FaultsTest = SimBench;

// A stable name for a line whose device comes and goes, as the links under
// /dev/serial/by-id are for USB adapters.
class DeviceLink {
 public:
  DeviceLink() : dir_(fs::temp_directory_path() / ("zeltocom-link-" + std::to_string(getpid()))) {
    fs::create_directories(dir_);
  }
  ~DeviceLink() { fs::remove_all(dir_); }
  std::string path() const { return (dir_ / "instrument").string(); }
  void PointAt(const std::string& target) {
    fs::remove(path());
    fs::create_symlink(target, path());
  }

 private:
  fs::path dir_;
};

}  // namespace

TEST_F(FaultsTest, ATricklingAnswerEndsAsATimeOut) {
  zeltosim::Config config = Analyser("ZS0001");
  config.id = std::string(40, '5');
  config.trickleMs = 150;
  zeltosim::SimPort& port = OpenPort(config);
  port.master().setFault(zeltosim::Fault::Trickle);
  ZeltoCom_SetResponseTimeout(250);
  // The whole answer would take over six seconds, with never more than the
  // time-out between two bytes.
  const auto start = Clock::now();
  EXPECT_EQ(Outcome(Send(port, "ID")), "0: Timeout");
  EXPECT_LT(MsSince(start), 6000);
}

TEST_F(FaultsTest, ABabblingInstrumentIsCutOffAndThenRefused) {
  zeltosim::SimPort& port = OpenPort(Analyser("ZS0001"));
  port.master().setFault(zeltosim::Fault::Babble);
  EXPECT_EQ(Outcome(Send(port, "GETSERIAL")), "-1: Answer too long");
  EXPECT_EQ(PortError(port), "Answer too long");
  // It goes on sending: the next command is refused, before it is written
  // or, when the babble paused just then, by its answer's length.
  const auto start = Clock::now();
  const std::string refused = Outcome(Send(port, "GETHW"));
  EXPECT_TRUE(refused == "-1: The line does not stop sending" || refused == "-1: Answer too long")
      << refused;
  EXPECT_LT(MsSince(start), 15000);  // a processor-time limit: generous on a loaded machine

  port.master().setFault(zeltosim::Fault::None);
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(Send(port, "GETHW"), 1) << LastError();
  EXPECT_STREQ(answer_, "Zelto 05-P");
}

TEST_F(FaultsTest, OpeningABabblingInstrumentFailsWithTheReason) {
  zeltosim::Config config = Analyser("ZS0001");
  config.fault = zeltosim::Fault::Babble;
  zeltosim::SimPort& port = AddPort(config);
  Publish();
  EXPECT_EQ(Outcome(ZeltoCom_Open(port.path().c_str(), port.baud())), "0: Answer too long");
  char paths[256];
  EXPECT_EQ(ZeltoCom_GetOpenedPortsS(paths, ';'), 0);
}

TEST_F(FaultsTest, UnpluggingEndsASendAtOnceAndThePathComesBack) {
  DeviceLink link;
  zeltosim::Config config = Analyser("ZS0001");
  auto first = std::make_unique<zeltosim::SimPort>(config, BenchLine());
  link.PointAt(first->path());
  setenv("ZELTOCOM_PORTS", link.path().c_str(), 1);
  ASSERT_EQ(ZeltoCom_EnumPorts(), 1);
  ASSERT_EQ(ZeltoCom_Open(link.path().c_str(), first->baud()), 1) << LastError();

  first->master().setAnswerDelayMs(2000);
  const auto start = Clock::now();
  auto send = std::async(std::launch::async, [&] {
    char answer[64];
    return ZeltoCom_Send(link.path().c_str(), "GETSERIAL", answer);
  });
  std::this_thread::sleep_for(200ms);
  first->unplug();
  EXPECT_EQ(send.get(), -1);
  EXPECT_LT(MsSince(start), 1500);
  EXPECT_EQ(LastError(), "Device disconnected");
  char answer[64];
  EXPECT_EQ(Outcome(ZeltoCom_Send(link.path().c_str(), "GETSERIAL", answer)),
            "-1: Device disconnected");
  EXPECT_EQ(ZeltoCom_Close(link.path().c_str()), 1);

  // Plugged in again, the instrument answers on the same path.
  zeltosim::SimPort second(config, BenchLine());
  link.PointAt(second.path());
  ASSERT_EQ(ZeltoCom_Open(link.path().c_str(), second.baud()), 1) << LastError();
  EXPECT_EQ(ZeltoCom_Send(link.path().c_str(), "GETSERIAL", answer), 1) << LastError();
  EXPECT_STREQ(answer, "ZS0001");
  ZeltoCom_CloseAll();
}

TEST_F(FaultsTest, UnpluggingEndsACaptureAtOnce) {
  zeltosim::Config config = Spectrometer("SP0001", "Zelto 01-W");
  config.captureTimeScale = 1.0;
  zeltosim::SimPort& port = OpenPort(config);
  const auto start = Clock::now();
  auto capture = std::async(std::launch::async, [&] {
    return ZeltoCom_SpectrometerCapture(port.path().c_str(), 0, 1, 10000.0f);
  });
  std::this_thread::sleep_for(300ms);
  port.unplug();
  EXPECT_EQ(capture.get(), -1);
  EXPECT_LT(MsSince(start), 2000);
  EXPECT_EQ(LastError(), "Device disconnected");
  EXPECT_EQ(ZeltoCom_CloseAll(), 1);
  char paths[256];
  EXPECT_EQ(ZeltoCom_GetOpenedPortsS(paths, ';'), 0);
}
