// Detection with and without filters, and connection checks that find an
// instrument's port by its serial number.
#include <array>
#include <atomic>
#include <thread>

#include "bench.hpp"
#include "frame/utils.hpp"

using namespace testlines;
using zeltocom::strcountchar;

namespace {

class DetectionTest : public SimBench {
 protected:
  static std::string Detected() {
    char text[4096] = "";
    ZeltoCom_DetectS(text, ';', 0);
    return text;
  }
};

// An instrument played by the test itself that tells its model only after
// `delay`, for the time the detection allows.
class SlowModel {
 public:
  explicit SlowModel(std::chrono::milliseconds delay) : thread_([this, delay] { Answer(delay); }) {}
  ~SlowModel() {
    stop_ = true;
    thread_.join();
  }
  const std::string& path() const { return line_.path(); }

 private:
  void Answer(std::chrono::milliseconds delay) {
    std::string pending;
    while (!stop_) {
      pending += line_.ReadFor(10ms);
      for (std::size_t end; (end = pending.find("\r\n")) != std::string::npos;) {
        const std::string command = pending.substr(0, end);
        pending.erase(0, end + 2);
        if (command == "BUSFREE") line_.Write("OK\r\n\x04");
        if (command == "GETSERIAL") line_.Write("ZT0001\r\n\x04");
        if (command == "GETHW") {
          std::this_thread::sleep_for(delay);
          line_.Write("Zelto 05-P\r\n\x04");
        }
      }
    }
  }
  FarEnd line_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace

TEST_F(DetectionTest, WithoutFiltersEveryAnsweringPortIsReportedInOrder) {
  zeltosim::SimPort& first = AddPort(Analyser("ZS0001"));
  zeltosim::Config silent = Analyser("ZS0002");
  silent.fault = zeltosim::Fault::Silent;
  AddPort(silent);
  zeltosim::SimPort& third = AddPort(Spectrometer("ZS0003"));
  Publish();
  EXPECT_EQ(Detected(), first.path() + ";" + third.path());
  char serials[3][25] = {};
  char* list[] = {serials[0], serials[1], serials[2]};
  EXPECT_EQ(ZeltoCom_DetectSN(list, 0), 2);
  EXPECT_STREQ(serials[1], "ZS0003");
  EXPECT_EQ(Opened(), "");
  EXPECT_EQ(Outcome(ZeltoCom_Detect(list, 14400)), "-1: Invalid baud-rate");

  char text[1024];
  EXPECT_EQ(ZeltoCom_ListPortsDetectedTxt(text, ", "), 3);
  EXPECT_EQ(std::string(text), first.path() + ", " + ports_[1]->path() + ", " + third.path());
}

// Each category word stands for its models from number 01 to its last one;
// any other filter is one model, in any letter case.
TEST_F(DetectionTest, CategoriesReachFromTheFirstModelNumberToTheLast) {
  const struct {
    const char* filter;
    std::array<const char*, 3> models;  // first, last, one past: only the first two pass
  } rows[] = {
      {"ANALYSER", {"Zelto 01-T", "Zelto 20-PN", "Zelto 21-P"}},
      {"FUNCTIONAL", {"Zelto 01-TN", "Zelto 20-T", "Zelto 21-TN"}},
      {"ICT", {"Zelto 01-PN", "Zelto 20-P", "Zelto 21-PN"}},
      {"LOWLIGHT", {"Zelto 01-M", "Zelto 20-M", "Zelto 21-M"}},
      {"IR", {"Zelto 01-PX", "Zelto 20-PX", "Zelto 21-PX"}},
      {"DISPLAY", {"Zelto 01-V", "Zelto 10-V", "Zelto 11-V"}},
      {"CLR", {"Zelto 01-CLR", "Zelto 10-CLR", "Zelto 11-CLR"}},
      // "CLRSTD" selects the colour models, not the colour standards.
      {"ClrStd", {"Zelto 01-CLR", "Zelto 10-CLR", "Zelto CLR_STD1"}},
      {"Zelto 07-x", {"zelto 07-X ", "Zelto 07-X", "Zelto 07-Y"}},
      {"SPECTROMETER", {"Zelto 01-W", "Zelto 01-W2", "Zelto 02-W"}},
      {"ATLAS", {"Zelto Node", "Zelto Atlas", "Zelto Node 2"}},
  };
  for (int i = 0; i < 3; ++i) AddPort(Analyser("ZS000" + std::to_string(i + 1)));
  Publish();
  const std::string passing = ports_[0]->path() + ";" + ports_[1]->path();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.filter);
    for (std::size_t i = 0; i < 3; ++i) ports_[i]->master().setAnswer("GETHW", row.models[i]);
    ZeltoCom_ClearDetectionFilters();
    ZeltoCom_AddDetectionFilter(row.filter);
    EXPECT_EQ(Detected(), passing);
  }
  // Filters add up; without any, every port is detected.
  ZeltoCom_AddDetectionFilter("zelto node 2");
  EXPECT_EQ(Detected(), passing + ";" + ports_[2]->path());
  ZeltoCom_ClearDetectionFilters();
  EXPECT_EQ(ZeltoCom_DetectS(nullptr, ';', 0), -1);
  EXPECT_EQ(strcountchar(Detected(), ';'), 2);
}

using ProcessorTimeDetectionTest = DetectionTest;

TEST_F(ProcessorTimeDetectionTest, AModelToldTooLateIsNotReported) {
  // Well past the limit: with busy waits the limit counts the worker's
  // processor time, which a loaded machine lets grow slower than wall time.
  SlowModel slow(600ms);
  SlowModel prompt(0ms);
  setenv("ZELTOCOM_PORTS", (slow.path() + ";" + prompt.path()).c_str(), 1);
  ASSERT_EQ(ZeltoCom_EnumPorts(), 2);
  ZeltoCom_AddDetectionFilter("ICT");
  EXPECT_EQ(Detected(), prompt.path());
}

TEST_F(DetectionTest, ConnectionChecksFindOpenPortsWithoutTraffic) {
  zeltosim::SimPort& open = AddPort(Analyser("ZS0001"));
  zeltosim::SimPort& closed = AddPort(Analyser("ZS0002"), At(9600));
  Publish();
  ASSERT_EQ(ZeltoCom_Open(open.path().c_str(), 0), 1);
  open.clearLog();
  char path[255];
  EXPECT_EQ(ZeltoCom_IsConnected(path, "zs0001", 0), 1);
  EXPECT_EQ(path, open.path());
  EXPECT_TRUE(Sent(open).empty());

  const std::string joined = "ZS0002;;ZS0404;ZS0001";
  char text[1024];
  EXPECT_EQ(ZeltoCom_AreConnectedS(text, joined.c_str(), ';', 0), 2);
  EXPECT_EQ(std::string(text), closed.path() + ";;;" + open.path());
  EXPECT_TRUE(Sent(open).empty());
  EXPECT_EQ(Opened(), open.path());
  // The rate found is tried first next time.
  closed.clearLog();
  EXPECT_EQ(ZeltoCom_IsConnected(path, "ZS0002", 0), 1);
  EXPECT_EQ(SpeedsOf(closed, "BUSFREE"), (std::vector<int>{9600}));

  EXPECT_EQ(Outcome(ZeltoCom_AreConnectedS(text, ";", ';', 0)), "-1: No serial numbers given");
  const char* serials[] = {"ZS0002", "ZS0001"};
  int results[2];
  ASSERT_EQ(ZeltoCom_Close(open.path().c_str()), 1);
  EXPECT_EQ(ZeltoCom_OpenSN_Multi(results, serials, 2, 0), 1) << LastError();
  EXPECT_EQ(Opened(), closed.path() + ";" + open.path());
}
