// Calls that drive many ports at once: results in the caller's order, their
// precedence, the roll-back of a failed open, and eight ports at a time.
#include <array>
#include <utility>

#include "bench.hpp"

namespace {

using zeltosim::Fault;

class MultiPortTest : public SimBench {
 protected:
  // Adds and publishes instruments; the first answers slowest, so that the
  // workers tend to finish in the reverse of the caller's order. (The
  // delays stay well within the handshake's shortest time-out.)
  void AddSlowestFirst(const std::vector<std::string>& serials) {
    const int n = static_cast<int>(serials.size());
    for (int i = 0; i < n; ++i) {
      zeltosim::Config config = Analyser(serials[static_cast<std::size_t>(i)]);
      config.answerDelayMs = 12 * (n - 1 - i) / std::max(n - 1, 1);
      AddPort(config);
    }
    Publish();
  }
  static std::vector<std::string> EightSerials() {
    std::vector<std::string> serials;
    for (int i = 1; i <= 8; ++i) serials.push_back("ZS000" + std::to_string(i));
    return serials;
  }
  std::vector<const char*> Paths() const {
    std::vector<const char*> paths;
    for (const auto& port : ports_) paths.push_back(port->path().c_str());
    return paths;
  }
  int OpenAll() {
    results_.assign(ports_.size(), 9);
    return ZeltoCom_Open_Multi(results_.data(), Paths().data(), static_cast<int>(ports_.size()),
                               BenchLine().baud);
  }
  std::vector<int> results_;
};

}  // namespace

TEST_F(MultiPortTest, EightPortsOpenSendCaptureAndCloseInTheCallersOrder) {
  AddSlowestFirst(EightSerials());
  ASSERT_EQ(OpenAll(), 1) << LastError();
  std::string joined;
  for (const char* path : Paths()) joined += (joined.empty() ? "" : ";") + std::string(path);
  EXPECT_EQ(Opened(), joined);
  EXPECT_EQ(ZeltoCom_CaptureFromAll(results_.data(), 0, 0, 0), 1) << LastError();

  // The first port answers last.
  for (const auto& port : ports_) port->master().setAnswerDelayMs(0);
  ports_[0]->master().setAnswerDelayMs(300);
  std::vector<std::array<char, 64>> answers(8);
  std::vector<char*> responses;
  for (auto& answer : answers) responses.push_back(answer.data());
  const std::vector<const char*> commands(8, "GETSERIAL");
  const auto answered = [&] {  // and cleared for the next call
    std::vector<std::string> texts;
    for (auto& answer : answers) texts.emplace_back(std::exchange(answer, {}).data());
    return texts;
  };
  const std::vector<const char*> paths = Paths();
  EXPECT_EQ(
      ZeltoCom_Send_Multi(results_.data(), paths.data(), 8, commands.data(), responses.data()), 1);
  EXPECT_EQ(answered(), EightSerials());
  EXPECT_EQ(ZeltoCom_SendToAll(results_.data(), "GETSERIAL", responses.data()), 1);
  EXPECT_EQ(answered(), EightSerials());

  // Half by path, half by serial number (which a path is not).
  EXPECT_EQ(ZeltoCom_Close_Multi(results_.data(), paths.data(), 4), 1);
  EXPECT_EQ(ZeltoCom_CloseSN_Multi(results_.data(), paths.data() + 4, 4), 0);
  std::vector<const char*> serials;
  for (const auto& port : ports_) serials.push_back(port->master().serial().c_str());
  EXPECT_EQ(ZeltoCom_CloseSN_Multi(results_.data(), serials.data() + 4, 4), 1);
  EXPECT_EQ(Opened(), "");
  EXPECT_EQ(Outcome(ZeltoCom_Close_Multi(results_.data(), paths.data(), 8)),
            "0: The device path is not in use");
}

TEST_F(MultiPortTest, AFailedOpenClosesWhatItOpenedAndTellsWhy) {
  AddSlowestFirst({"ZS0001", "ZS0002"});
  ports_[1]->master().setFault(Fault::Silent);
  const std::string tooLong(300, 'x');
  std::vector<const char*> paths = Paths();
  paths.push_back(tooLong.c_str());
  std::vector<int> results(3, 9);
  // The first failure in list order, not the worst, with its own text.
  EXPECT_EQ(ZeltoCom_Open_Multi(results.data(), paths.data(), 3, BenchLine().baud), 0);
  EXPECT_EQ(results, (std::vector<int>{1, 0, -1}));
  EXPECT_EQ(LastError(), "Unable to communicate with device");
  EXPECT_EQ(Opened(), "");

  // A serial number on no port.
  const char* serials[] = {"ZS0001", "ZS0404"};
  EXPECT_EQ(ZeltoCom_OpenSN_Multi(results.data(), serials, 2, BenchLine().baud), -1);
  EXPECT_EQ(results[1], -1);
  EXPECT_EQ(LastError(), "Unable to find device");
  EXPECT_EQ(Opened(), "");

  // A port open already stays open.
  ports_[1]->master().setFault(Fault::None);
  ASSERT_EQ(ZeltoCom_Open(ports_[1]->path().c_str(), BenchLine().baud), 1);
  EXPECT_EQ(Outcome(OpenAll()), "0: The port is already in use");
  EXPECT_EQ(Opened(), ports_[1]->path());
}

TEST_F(MultiPortTest, SendResultsPutMinusOneBeforeZero) {
  AddSlowestFirst({"ZS0001", "ZS0002", "ZS0003"});
  ASSERT_EQ(OpenAll(), 1) << LastError();
  char answers[3][64] = {"untouched", "untouched", "untouched"};
  char* responses[] = {answers[0], answers[1], answers[2]};
  const char* refused[] = {"GETSERIAL", "NOSUCHCOMMAND", "GETSERIAL"};
  std::vector<const char*> paths = Paths();
  paths[2] = "/dev/pts/none";
  EXPECT_EQ(ZeltoCom_Send_Multi(results_.data(), paths.data(), 3, refused, responses), -1);
  EXPECT_EQ(results_, (std::vector<int>{1, 0, -1}));
  EXPECT_EQ(LastError(), "The device path is not in use");
  const char* fine[] = {"NOSUCHCOMMAND", "GETSERIAL", "GETSERIAL"};
  EXPECT_EQ(Outcome(ZeltoCom_Send_Multi(results_.data(), Paths().data(), 3, fine, responses)),
            "0: Syntax error");

  // By serial number: one not open gets -1 and keeps its buffer.
  std::strcpy(answers[1], "untouched");
  const char* serials[] = {"ZS0003", "ZS0404", "ZS0001"};
  EXPECT_EQ(ZeltoCom_SendSN_Multi(results_.data(), serials, 3, fine, responses), -1);
  EXPECT_EQ(results_, (std::vector<int>{0, -1, 1}));
  EXPECT_STREQ(answers[1], "untouched");
  EXPECT_STREQ(answers[2], "ZS0001");

  // Without responses each port keeps its answer; empty list entries are skipped.
  const std::string list = std::string(Paths()[0]) + ";;" + Paths()[1];
  EXPECT_EQ(ZeltoCom_Send_Multi_NR(results_.data(), list.c_str(), 2, "GETSERIAL|GETHW", '|'), 1);
  EXPECT_EQ(Record(*ports_[0])->lastResponse.Get(), "ZS0001");
  EXPECT_EQ(Record(*ports_[1])->lastResponse.Get(), "Zelto 05-P");
  ports_[0]->clearLog();
  EXPECT_EQ(Outcome(ZeltoCom_Send_Multi_NR(results_.data(), list.c_str(), 3, "ID|ID|ID", '|')),
            "-1: Not enough commands given");
  EXPECT_TRUE(Sent(*ports_[0]).empty());
}

TEST_F(MultiPortTest, CapturesFromAllPortsAndFromTheSpectrometersAmongThem) {
  int results[3] = {9, 9, 9};
  EXPECT_EQ(Outcome(ZeltoCom_CaptureFromAll(results, 0, 0, 0)), "0: No ports have been opened");
  EXPECT_EQ(ZeltoCom_SendToAll(results, "ID", nullptr), -1);
  EXPECT_EQ(ZeltoCom_CaptureFromAllSpectrometers(results, 0, 0, 0), 0);

  zeltosim::Config overRange = Analyser("ZS0003");
  overRange.fibers[0].force = zeltosim::Range::OverRange;
  for (auto config : {Analyser("ZS0001"), Spectrometer("ZS0002"), overRange}) AddPort(config);
  Publish();
  ASSERT_EQ(OpenAll(), 1) << LastError();
  EXPECT_EQ(ZeltoCom_CaptureFromAll(results, 0, 0, 0), -1);
  EXPECT_EQ(std::vector<int>(results, results + 3), (std::vector<int>{1, -1, 0}));
  EXPECT_EQ(LastError(), "Device is a Spectrometer");

  results[0] = 9;
  EXPECT_EQ(ZeltoCom_CaptureFromAllSpectrometers(results, 0, 0, 0), 1) << LastError();
  EXPECT_EQ(std::vector<int>(results, results + 3), (std::vector<int>{1, -1, 0}));
  EXPECT_EQ(ports_[1]->master().captures(), 1);
}

// Wall time against the waits of seven other workers: the silent port's
// time-out must not end early.
using ProcessorTimeMultiPortTest = MultiPortTest;

TEST_F(ProcessorTimeMultiPortTest, ASilentPortWaitsItsWholeTimeOutAmongSevenOthers) {
  AddSlowestFirst(EightSerials());
  ASSERT_EQ(OpenAll(), 1) << LastError();
  for (const auto& port : ports_) port->master().setAnswerDelayMs(400);
  ports_[5]->master().setFault(Fault::Silent);
  ZeltoCom_SetResponseTimeout(600);
  const auto start = testlines::Clock::now();
  EXPECT_EQ(ZeltoCom_SendToAll_NR(results_.data(), "GETSERIAL"), 0);
  EXPECT_GE(testlines::MsSince(start), 600);
  EXPECT_EQ(results_, (std::vector<int>{1, 1, 1, 1, 1, 0, 1, 1}));
  EXPECT_EQ(LastError(), "Timeout");
}
