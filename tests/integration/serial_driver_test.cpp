// The serial driver's framing, end rules and time-outs, over a simulated
// instrument and over a bare pseudo-terminal that the test answers itself.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "bench.hpp"
#include "serial/driver.hpp"

using namespace zeltocom;
using Clock = std::chrono::steady_clock;

namespace {

// The far end of a pseudo-terminal, played by the test.
class RawLine {
 public:
  RawLine() {
    master_ = posix_openpt(O_RDWR | O_NOCTTY);
    grantpt(master_);
    unlockpt(master_);
    path_ = ptsname(master_);
    // Held open so that the master never sees a hang-up.
    slave_ = open(path_.c_str(), O_RDWR | O_NOCTTY);
  }
  ~RawLine() {
    close(slave_);
    close(master_);
  }
  const std::string& path() const { return path_; }
  void Write(const std::string& bytes) {
    ASSERT_EQ(write(master_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  std::string ReadFor(int ms) {
    std::string got;
    const auto end = Clock::now() + std::chrono::milliseconds(ms);
    while (Clock::now() < end) {
      pollfd p{master_, POLLIN, 0};
      if (poll(&p, 1, 10) > 0) {
        char buffer[256];
        const ssize_t n = read(master_, buffer, sizeof buffer);
        if (n > 0) got.append(buffer, static_cast<std::size_t>(n));
      }
    }
    return got;
  }

 private:
  int master_ = -1;
  int slave_ = -1;
  std::string path_;
};

long MsSince(Clock::time_point start) {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

class DriverTest : public SimBench {
 protected:
  void TearDown() override {
    if (fd_ >= 0) RS232ClosePort(fd_);
    SimBench::TearDown();
  }
  void OpenLine(const std::string& path, int baud = 57600) {
    ASSERT_EQ(RS232OpenPort(fd_, path, baud), 1);
  }
  t_comresponse Ask(const std::string& command, long timeoutMs, const std::string& marker,
                    bool trim, bool multiLine = false, int lineCount = 0) {
    EXPECT_EQ(RS232SendCommand(fd_, command), 1);
    t_comresponse response;
    EXPECT_EQ(RS232WaitForData(fd_, &response, timeoutMs, marker, trim, multiLine, lineCount), 1);
    return response;
  }
  int fd_ = -1;
};

}  // namespace

TEST_F(DriverTest, ASilentDeviceRunsIntoTheTimeOut) {
  zeltosim::Config config = Analyser("ZS0001");
  config.fault = zeltosim::Fault::Silent;
  OpenLine(AddPort(config).path());
  const auto start = Clock::now();
  const t_comresponse response = Ask("GETSERIAL", 150, "\r\n", true);
  EXPECT_TRUE(response.data.empty());
  EXPECT_GE(response.elapsedMs, 150);
  EXPECT_GE(MsSince(start), 100);
}

TEST_F(DriverTest, EveryCommandGetsItsOwnLineEnd) {
  RawLine line;
  OpenLine(line.path());
  EXPECT_EQ(RS232SendCommand(fd_, "GETSERIAL\r\n"), 1);
  EXPECT_EQ(line.ReadFor(50), "GETSERIAL\r\n\r\n");
}

TEST_F(DriverTest, StaleInputIsDiscardedBeforeAWrite) {
  RawLine line;
  OpenLine(line.path());
  line.Write("late answer\r\n");
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_EQ(RS232SendCommand(fd_, "GETHW"), 1);
  EXPECT_EQ(line.ReadFor(50), "GETHW\r\n");
  line.Write("Zelto 05-P\r\n");
  t_comresponse response;
  RS232WaitForData(fd_, &response, 300, "", true);
  EXPECT_EQ(response.data, "Zelto 05-P");
}

TEST_F(DriverTest, TheTimeOutCountsFromTheLastByte) {
  RawLine line;
  OpenLine(line.path());
  std::thread trickle([&] {
    for (const char* piece : {"SLOW", " AN", "SWER", "\r\n"}) {
      std::this_thread::sleep_for(std::chrono::milliseconds(60));
      line.Write(piece);
    }
  });
  t_comresponse response;
  RS232WaitForData(fd_, &response, 100, "\r\n", true);
  trickle.join();
  EXPECT_EQ(response.data, "SLOW ANSWER");
  EXPECT_LT(response.elapsedMs, 100);
}

TEST_F(DriverTest, ALongAnswerArrivesWhole) {
  RawLine line;
  OpenLine(line.path());
  std::string spectrum;
  for (int i = 0; i < 400; ++i) spectrum += std::to_string(1000 + i) + ";";
  line.Write(spectrum + "\r\n");
  t_comresponse response;
  RS232WaitForData(fd_, &response, 300, "\r\n", true);
  EXPECT_EQ(response.data, spectrum);
}

