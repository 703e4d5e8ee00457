// The wire trace: what goes over a line, as a station's engineer reads it.
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "bench.hpp"
#include "frame/trace.hpp"

namespace {

class TraceTest : public SimBench {
 protected:
  void SetUp() override {
    SimBench::SetUp();
    char name[] = "/tmp/zeltocom_trace_XXXXXX";
    const int fd = mkstemp(name);
    ASSERT_GE(fd, 0);
    close(fd);
    path_ = name;
  }
  void TearDown() override {
    ZeltoCom_SetTrace(nullptr);
    unlink(path_.c_str());
    SimBench::TearDown();
  }
  std::string Traced() const {
    std::ifstream in(path_);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }
  // The trace lines that contain `what`.
  std::vector<std::string> LinesWith(const std::string& what) const {
    std::vector<std::string> found;
    std::istringstream in(Traced());
    for (std::string line; std::getline(in, line);) {
      if (line.find(what) != std::string::npos) found.push_back(line);
    }
    return found;
  }
  std::string path_;
};

}  // namespace

TEST(TraceText, BytesOutsidePrintableAsciiAreEscaped) {
  const struct {
    std::string bytes;
    std::string shown;
  } rows[] = {
      {"GETSERIAL", "GETSERIAL"},
      {"OK\r\n\x04", "OK\\r\\n\\x04"},
      {std::string("a\0b", 3), "a\\x00b"},
      {"\\\t\x7f\xff", "\\\\\\t\\x7F\\xFF"},
  };
  for (const auto& row : rows) EXPECT_EQ(zeltocom::EscapedBytes(row.bytes), row.shown);
}

TEST_F(TraceTest, EveryCommandAndAnswerIsOneLineWithPortSerialOutcomeAndTime) {
  ASSERT_EQ(ZeltoCom_SetTrace(path_.c_str()), 1) << LastError();
  // A file that cannot be opened fails, and the trace goes on as it was.
  EXPECT_EQ(ZeltoCom_SetTrace("/nonexistent-dir/trace.txt"), -1);
  EXPECT_EQ(LastError(), "Unable to open trace file /nonexistent-dir/trace.txt");
  zeltosim::SimPort& port = OpenPort(Analyser("ZT0001", 3));
  ZeltoCom_SetResponseTimeout(300);
  ASSERT_EQ(Send(port, "GETNFIB"), 1) << LastError();

  // The open's handshake, before the serial number is known.
  EXPECT_FALSE(LinesWith(port.path() + " - > GETSERIAL\\r\\n").empty()) << Traced();
  const std::vector<std::string> sent = LinesWith(port.path() + " ZT0001 > GETNFIB\\r\\n");
  ASSERT_EQ(sent.size(), 1u) << Traced();
  const std::vector<std::string> answered = LinesWith(" ZT0001 < 3\\r\\n");
  ASSERT_EQ(answered.size(), 1u) << Traced();
  EXPECT_NE(answered[0].find(", answered, "), std::string::npos) << answered[0];
  EXPECT_NE(answered[0].find(" ms)"), std::string::npos) << answered[0];
  // A monotonic timestamp leads every line.
  EXPECT_GT(std::stod(sent[0]), 0.0);
  EXPECT_LE(std::stod(sent[0]), std::stod(answered[0]));

  // From here on: a loaded machine may have made the opening's answers late too.
  std::ofstream(path_, std::ios::trunc);
  port.master().setFault(zeltosim::Fault::Silent);
  EXPECT_EQ(Outcome(Send(port, "GETSERIAL")), "0: Timeout");
  EXPECT_EQ(LinesWith(", late, ").size(), 1u) << Traced();
  port.master().setFault(zeltosim::Fault::None);
  // The line is brought back in step, and the trace says so.
  EXPECT_EQ(Send(port, "GETNFIB"), 1) << LastError();
  EXPECT_FALSE(LinesWith("! out of step after a time-out").empty()) << Traced();

  // Stopped, it writes nothing more.
  ASSERT_EQ(ZeltoCom_SetTrace(""), 1);
  const std::string before = Traced();
  EXPECT_EQ(Send(port, "GETNFIB"), 1);
  EXPECT_EQ(Traced(), before);
}
