// The serial driver's framing, end rules and time-outs, over a simulated
// instrument and over a bare pseudo-terminal that the test answers itself.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "bench.hpp"
#include "serial/driver.hpp"

using namespace zeltocom;
using namespace testlines;

namespace {

class DriverTest : public SimBench {
 protected:
  void TearDown() override {
    RS232ClosePort(line_);
    SimBench::TearDown();
  }
  // Opens the library's side of the test's own line.
  void OpenLine(int baud = 57600) { ASSERT_EQ(RS232OpenPort(line_, far_.path(), baud), 1); }
  t_comresponse Wait(long timeoutMs, const std::string& marker) {
    t_comresponse response;
    RS232WaitForData(line_, &response, timeoutMs, marker, true);
    return response;
  }
  FarEnd far_;
  SerialLine line_;
};

}  // namespace

// An answer ends at its marker: what came after it in the same read, and
// whatever comes late, is thrown away by the next command, never taken for
// its answer.
TEST_F(DriverTest, EveryCommandGetsItsOwnLineEndAfterStaleInputIsDiscarded) {
  OpenLine();
  EXPECT_EQ(RS232SendCommand(line_, "GETSERIAL\r\n"), 1);
  EXPECT_EQ(far_.ReadFor(50ms), "GETSERIAL\r\n\r\n");
  far_.Write("ZS0001\r\nDATA 1\r\nDA");
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(Wait(300, "\r\n").data, "ZS0001");
  EXPECT_EQ(line_.leftover, "DATA 1\r\nDA");
  far_.Write("late answer\r\n");
  std::this_thread::sleep_for(20ms);
  ASSERT_EQ(RS232SendCommand(line_, "GETHW"), 1);
  EXPECT_EQ(far_.ReadFor(50ms), "GETHW\r\n");
  far_.Write("Zelto 05-P\r\n");
  EXPECT_EQ(Wait(300, "").data, "Zelto 05-P");
  EXPECT_EQ(line_.dropped.substr(line_.dropped.size() - 23), "DATA 1\r\nDAlate answer\r\n");
}

// A command goes out only once the line has been quiet, however fast the
// stale bytes come; a message cut short holds it back longer.
TEST_F(DriverTest, ACommandWaitsUntilTheLineIsQuiet) {
  OpenLine();
  std::atomic<bool> stopped{false};
  // The flood's longest pause: a loaded machine may stop the writer for
  // longer than the quiet a cut message needs (50 ms), which lets the
  // command out early, and rightly so.
  std::atomic<long> longestPauseUs{0};
  std::thread flood([&] {
    const std::string chunk(512, 'x');
    const auto end = Clock::now() + 150ms;
    for (auto lastWritten = Clock::now(); Clock::now() < end;) {
      const auto pause =
          std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - lastWritten);
      longestPauseUs = std::max(longestPauseUs.load(), static_cast<long>(pause.count()));
      // Never blocks: once the command is out nobody reads the line.
      if (far_.Offer(chunk, 1ms)) lastWritten = Clock::now();
      std::this_thread::sleep_for(200us);
    }
    stopped = true;
  });
  std::this_thread::sleep_for(20ms);
  const int sent = RS232SendCommand(line_, "GETSERIAL");
  const bool floodOver = stopped;
  flood.join();
  ASSERT_EQ(sent, 1);
  EXPECT_TRUE(floodOver || longestPauseUs >= 50000) << "the flood never paused for 50 ms";
  EXPECT_EQ(far_.ReadFor(50ms), "GETSERIAL\r\n");
  // The bytes were read, not left to be flushed: a message cut short keeps
  // the command back for longer than a pause between messages would.
  far_.Write("half a messa");
  std::this_thread::sleep_for(2ms);
  const auto start = Clock::now();
  ASSERT_EQ(RS232SendCommand(line_, "ID"), 1);
  EXPECT_GE(MsSince(start), 48);
  EXPECT_EQ(far_.ReadFor(50ms), "ID\r\n");
}

// These race a wait's time-out against a writer's wall-clock pauses: run
// alone. The time-out counts from the last byte; an end text split between
// reads is waited for whole; a long readout byte by byte at 9600 baud (about
// 2.4 s, eight times the time-out, and far longer than the time-out plus a
// second would be for a short answer) is not cut.
using ProcessorTimeDriverTest = DriverTest;

TEST_F(ProcessorTimeDriverTest, AnAnswerEndsAtItsWholeEndTextHoweverSlowlyItComes) {
  std::string readout;
  for (int i = 0; i < 300; ++i) readout += std::to_string(10000 + i) + "\r\n";
  std::vector<std::string> paced;
  for (const char c : readout + "END\r\n") paced.emplace_back(1, c);
  const struct {
    int baud;
    std::vector<std::string> pieces;
    std::chrono::microseconds gap;
    long timeoutMs;
    std::string end;
    std::string data;
  } rows[] = {
      {57600, {"SLOW", " AN", "SWER", "\r\n"}, 60ms, 100, "\r\n", "SLOW ANSWER"},
      {57600, {"Acquiring", "...\r\n"}, 60ms, 1000, "Acquiring...\r\n", "Acquiring..."},
      {9600, paced, 1146us, 300, "END\r\n", readout + "END"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.data.substr(0, 12));
    OpenLine(row.baud);
    std::thread writer([&] {
      auto due = Clock::now();
      for (const std::string& piece : row.pieces) {
        std::this_thread::sleep_until(due += row.gap);
        far_.Write(piece);
      }
    });
    const t_comresponse response = Wait(row.timeoutMs, row.end);
    writer.join();
    EXPECT_EQ(response.data, row.data);
    EXPECT_LT(response.elapsedMs, row.timeoutMs);
    RS232ClosePort(line_);
  }
}

// A trigger report may be as long as an answer may be, and no longer.
TEST_F(DriverTest, ATriggerReportTakesUpToTheAnswerLimit) {
  OpenLine();
  for (const std::size_t size : {kMaxAnswerBytes, kMaxAnswerBytes + 1}) {
    SCOPED_TRACE(size);
    std::atomic<bool> written{false};
    std::thread writer([&] {
      far_.Write(std::string(size - 2, '7') + "\r\n");
      written = true;
    });
    t_comresponse report;
    const std::atomic<bool> abort{false};
    const bool ended = RS232WaitForExternalCapture(line_.fd, -1, &report, abort, "\r\n", false, 0);
    // What the wait left unread is taken, so that the writer can finish.
    while (!written) ReadFrom(line_.fd, 10ms);
    writer.join();
    EXPECT_EQ(ended, size == kMaxAnswerBytes);
    EXPECT_EQ(report.data, ended ? std::string(size - 2, '7') : "Answer too long");
  }
}
