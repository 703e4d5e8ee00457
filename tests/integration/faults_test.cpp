// Instruments that trickle, babble, stream, answer late or are
// unplugged: every call still returns, within its time-outs, with a clear
// error, and never with an answer that is not its own.
#include <filesystem>
#include <functional>
#include <future>
#include <thread>

#include "bench.hpp"
#include "serial/driver.hpp"

using namespace testlines;
namespace fs = std::filesystem;

namespace {

using FaultsTest = SimBench;

}  // namespace

// An answer that trickles, with never more than the time-out between two
// bytes (the whole would take over six seconds), ends after the time-out
// plus a second; a line that streams at its full rate without end holds an
// exchange no longer than its time-out and the allowance for streams.
TEST_F(FaultsTest, TricklesAndEndlessStreamsEndAsTimeOutsWithinTheirBounds) {
  zeltocom::SetStreamAllowanceMs(1500);
  const struct {
    zeltosim::Fault fault;
    int timeoutMs;
    long minMs, maxMs;
  } rows[] = {{zeltosim::Fault::Trickle, 250, 0, 6000}, {zeltosim::Fault::Stream, 300, 1500, 4000}};
  for (const auto& row : rows) {
    SCOPED_TRACE(static_cast<int>(row.fault));
    zeltosim::Config config = Analyser("ZS0001");
    config.id = std::string(40, '5');
    config.trickleMs = 150;
    zeltosim::SimPort& port = OpenPort(config, At(57600));
    port.master().setFault(row.fault);
    ZeltoCom_SetResponseTimeout(row.timeoutMs);
    const auto start = Clock::now();
    EXPECT_EQ(Outcome(Send(port, "ID")), "0: Timeout");
    const long took = MsSince(start);
    EXPECT_GT(took, row.minMs);
    EXPECT_LT(took, row.maxMs);
    if (row.fault == zeltosim::Fault::Stream) {
      // The stream stopped, the line is in step at once; a trickle still
      // owes the rest of its answer.
      port.master().setFault(zeltosim::Fault::None);
      ZeltoCom_SetResponseTimeout(2500);
      EXPECT_EQ(Send(port, "GETSERIAL"), 1) << LastError();
      EXPECT_STREQ(answer_, "ZS0001");
    }
    ZeltoCom_CloseAll();
  }
  zeltocom::SetStreamAllowanceMs(zeltocom::kStreamAllowanceMs);
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

  // One that babbles from the start is not opened, and says why.
  zeltosim::Config config = Analyser("ZS0002");
  config.fault = zeltosim::Fault::Babble;
  zeltosim::SimPort& babbler = AddPort(config);
  Publish();
  EXPECT_EQ(Outcome(ZeltoCom_Open(babbler.path().c_str(), babbler.baud())), "0: Answer too long");
  EXPECT_EQ(Opened(), port.path());
}

// A send or a capture in progress ends as soon as the instrument is
// unplugged; plugged in again, it answers on the same path.
TEST_F(FaultsTest, UnpluggingEndsASendAtOnceAndThePathComesBack) {
  zeltosim::Config config = Spectrometer("SP0001", "Zelto 01-W");
  config.captureTimeScale = 1.0;
  // A stable name for the line while its device comes and goes, as the
  // links under /dev/serial/by-id are for USB adapters.
  const fs::path link = fs::temp_directory_path() / ("zeltocom-link-" + std::to_string(getpid()));
  const std::string linkPath = link.string();
  const char* path = linkPath.c_str();
  setenv("ZELTOCOM_PORTS", path, 1);
  const auto send = [&] { return ZeltoCom_Send(path, "GETSERIAL", answer_); };
  const auto capture = [&] { return ZeltoCom_SpectrometerCapture(path, 0, 1, 10000.0f); };
  const std::pair<std::function<int()>, int> rows[] = {{send, 2000}, {capture, 0}};
  for (const auto& [call, answerDelayMs] : rows) {
    zeltosim::SimPort port(config, BenchLine());
    fs::remove(link);
    fs::create_symlink(port.path(), link);
    ASSERT_EQ(ZeltoCom_EnumPorts(), 1);
    ASSERT_EQ(ZeltoCom_Open(path, port.baud()), 1) << LastError();
    ASSERT_EQ(ZeltoCom_Send(path, "GETSERIAL", answer_), 1) << LastError();
    EXPECT_STREQ(answer_, "SP0001");
    port.master().setAnswerDelayMs(answerDelayMs);
    const auto start = Clock::now();
    auto pending = std::async(std::launch::async, call);
    std::this_thread::sleep_for(200ms);
    port.unplug();
    EXPECT_EQ(pending.get(), -1);
    EXPECT_LT(MsSince(start), 1500);
    EXPECT_EQ(LastError(), "Device disconnected");
    EXPECT_EQ(Outcome(send()), "-1: Device disconnected");
    EXPECT_EQ(ZeltoCom_Close(path), 1);
  }
  EXPECT_EQ(Opened(), "");
  fs::remove(link);
}

// ---- Every answer belongs to its command --------------------------------

// An instrument that answers after the time-out: the late answer is thrown
// away with everything else up to the serial number that brings the line
// back in step, never handed to the next command.
TEST_F(FaultsTest, ALateAnswerIsNeverTakenForALaterCommands) {
  zeltosim::SimPort& port = OpenPort(Analyser("ZS0001"));
  port.master().setAnswerDelayMs(120);
  const std::pair<const char*, const char*> kAnswers[] = {
      {"GETHW", "Zelto 05-P"}, {"ID", "05F"}, {"GETVERSION", "F2.20"}};
  int late = 0;
  for (int i = 0; i < 9; ++i) {
    const auto& [command, expected] = kAnswers[i % 3];
    ZeltoCom_SetResponseTimeout(i % 2 == 0 ? 60 : 600);
    const int result = Send(port, command);
    if (result == 1) {
      EXPECT_STREQ(answer_, expected) << i;
    } else {
      ++late;
      EXPECT_EQ(Outcome(result), "0: Timeout") << i;
    }
  }
  EXPECT_EQ(late, 5);  // of 9: the other 4 answered
  EXPECT_EQ(Record(port)->line->resyncs, 4u);
  // A late serial number is owed too: two are awaited, the line's own and
  // the one that brings it back.
  ZeltoCom_SetResponseTimeout(60);
  EXPECT_EQ(Send(port, "GETSERIAL"), 0);
  ZeltoCom_SetResponseTimeout(600);
  ASSERT_EQ(Send(port, "GETHW"), 1) << LastError();
  EXPECT_STREQ(answer_, "Zelto 05-P");
}

// ---- Every wait ends on time -------------------------------------------------

// Closing a port from another thread ends the exchange that holds its line
// at once, instead of waiting for its time-out.
TEST_F(FaultsTest, ClosingEndsAnExchangeInProgress) {
  for (const bool all : {false, true}) {
    zeltosim::SimPort& port = OpenPort(Analyser(all ? "ZS0002" : "ZS0001"));
    port.master().setFault(zeltosim::Fault::Silent);
    ZeltoCom_SetResponseTimeout(20000);
    auto send = std::async(std::launch::async, [&] {
      char answer[64];
      const int result = ZeltoCom_Send(port.path().c_str(), "GETSERIAL", answer);
      return Outcome(result);
    });
    std::this_thread::sleep_for(200ms);
    const auto start = Clock::now();
    EXPECT_EQ(all ? ZeltoCom_CloseAll() : ZeltoCom_Close(port.path().c_str()), 1);
    EXPECT_LT(MsSince(start), 1000);  // 100 ms on an idle machine
    EXPECT_EQ(send.get(), "-1: The port was closed during the exchange");
  }
}
