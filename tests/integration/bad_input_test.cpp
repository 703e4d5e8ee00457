// Every exported call with bad arguments: null pointers, empty and overlong
// texts, unknown and closed ports, negative and huge numbers. Each gives a
// failure result and an error text, and never crashes or hangs.
#include <climits>
#include <cmath>
#include <functional>

#include "bench.hpp"
#include "frame/errors.hpp"

namespace {

struct BadCall {
  std::string what;
  std::function<int()> call;
  std::vector<int> failures;  // the results that count as the expected failure
};

class BadInputTest : public SimBench {
 protected:
  void SetUp() override {
    SimBench::SetUp();
    zeltosim::SimPort& closed = AddPort(Analyser("ZS0002"));
    zeltosim::SimPort& open = AddPort(Analyser("ZS0001"));
    Publish();
    ASSERT_EQ(ZeltoCom_Open(closed.path().c_str(), closed.baud()), 1);
    ASSERT_EQ(ZeltoCom_Close(closed.path().c_str()), 1);
    ASSERT_EQ(ZeltoCom_Open(open.path().c_str(), open.baud()), 1);
    closed_ = closed.path();
    open_ = open.path();
    open_ptr_ = open_.c_str();
  }

  // The texts that no call may take for a port, a serial number or an ID.
  std::vector<std::pair<std::string, const char*>> BadNames() const {
    return {{"null", nullptr},
            {"empty", ""},
            {"10000 characters", long_.c_str()},
            {"unknown", "/dev/pts/none"},
            {"closed", closed_.c_str()}};
  }

  std::vector<BadCall> Calls() {
    char* buf = buffer_;
    int* ints = ints_;
    char** bufs = bufs_;
    std::vector<BadCall> calls;
    for (const auto& [kind, name] : BadNames()) {
      const auto add = [&](const std::string& function, std::function<int()> call,
                           std::vector<int> failures) {
        calls.push_back({function + "(" + kind + ")", std::move(call), std::move(failures)});
      };
      // A closed port may be opened again and is still available.
      if (name != closed_.c_str()) {
        add("Open", [=] { return ZeltoCom_Open(name, 57600); }, {0, -1});
        add("IsPortAvailable", [=] { return ZeltoCom_IsPortAvailable(name); }, {0});
      }
      add("OpenSN", [=] { return ZeltoCom_OpenSN(name, 57600); }, {0, -1});
      add("OpenID", [=] { return ZeltoCom_OpenID(name); }, {-1});
      add("Close", [=] { return ZeltoCom_Close(name); }, {0});
      add("CloseSN", [=] { return ZeltoCom_CloseSN(name); }, {0});
      add("Close_Multi_Thread", [=] { return ZeltoCom_Close_Multi_Thread(nullptr, name); }, {0});
      add("CloseSN_Multi_Thread", [=] { return ZeltoCom_CloseSN_Multi_Thread(nullptr, name); },
          {0});
      add("GetPortBySN", [=] { return ZeltoCom_GetPortBySN(buf, name); }, {-1});
      add("GetSNByPort", [=] { return ZeltoCom_GetSNByPort(buf, name); }, {-1});
      add("GetPortByID", [=] { return ZeltoCom_GetPortByID(name, buf) == buf && buf[0] == '\0' ? 0 : 1; },
          {0});
      add("GetBaudrate", [=] { return ZeltoCom_GetBaudrate(name); }, {0});
      add("GetDeviceType", [=] { return ZeltoCom_GetDeviceType(name, buf); }, {0});
      add("Send", [=] { return ZeltoCom_Send(name, "GETSERIAL", buf); }, {-1});
      add("SendSN", [=] { return ZeltoCom_SendSN(name, "GETSERIAL", buf); }, {-1});
      add("SendByID", [=] { return ZeltoCom_SendByID(name, "GETSERIAL", buf); }, {-1});
      add("Send_Multi_Thread",
          [=] { return ZeltoCom_Send_Multi_Thread(nullptr, name, "GETSERIAL", buf); }, {-1});
      add("SetResponseTimeoutAuto", [=] { return ZeltoCom_SetResponseTimeoutAuto(name, 1); }, {-1});
      add("Capture", [=] { return ZeltoCom_Capture(name, 0, 0, 0); }, {-1});
      add("SpectrometerCapture", [=] { return ZeltoCom_SpectrometerCapture(name, 0, 0, 0); }, {-1});
      add("SpectrometerDark", [=] { return ZeltoCom_SpectrometerDark(name, 0, 0, 0); }, {-1});
      add("DaisyChain_Add", [=] { return ZeltoCom_DaisyChain_Add(name, "ZS0009"); }, {0});
      add("DaisyChain_Add serial", [=, this] { return ZeltoCom_DaisyChain_Add(open_.c_str(), name); },
          {0});
      add("DaisyChain_Del", [=] { return ZeltoCom_DaisyChain_Del(name, "ZS0009"); }, {0});
      add("DaisyChain_Clear", [=] { return ZeltoCom_DaisyChain_Clear(name); }, {0});
      add("DaisyChain_Send", [=] { return ZeltoCom_DaisyChain_Send(name, "ZS0009", "GETSERIAL", buf); },
          {0, -1});
      add("DaisyChain_Send serial",
          [=, this] { return ZeltoCom_DaisyChain_Send(open_.c_str(), name, "GETSERIAL", buf); },
          {0, -1});
      add("DaisyChain_Capture", [=] { return ZeltoCom_DaisyChain_Capture(name, 0, 0, 0); }, {-1});
      add("DaisyChain_SpectrometerCapture",
          [=] { return ZeltoCom_DaisyChain_SpectrometerCapture(name, "ZS0009", 0, 0, 0); }, {0, -1});
      add("DaisyChain_SpectrometerDark serial",
          [=, this] { return ZeltoCom_DaisyChain_SpectrometerDark(open_.c_str(), name, 0, 0, 0); },
          {0, -1});
      add("GetResponseByPort", [=] { return ZeltoCom_GetResponseByPort(name, buf); }, {0});
      // ---- Many ports at once ----
      if (name != closed_.c_str()) {
        add("Open_Multi_Thread", [=] { return ZeltoCom_Open_Multi_Thread(nullptr, name, 0); },
            {0, -1});
        add("Open_Multi", [=] { return ZeltoCom_Open_Multi(ints, &name, 1, 0); }, {0, -1});
        add("Detect_Thread", [=] { return ZeltoCom_Detect_Thread(nullptr, name, 0, buf); }, {0});
      }
      add("Close_Multi", [=] { return ZeltoCom_Close_Multi(ints, &name, 1); }, {0});
      add("CloseSN_Multi", [=] { return ZeltoCom_CloseSN_Multi(ints, &name, 1); }, {0});
      add("SendSN_Multi", [=] { return ZeltoCom_SendSN_Multi(ints, &name, 1, &name, bufs); },
          {-1});
      add("SendToAll_Thread",
          [=] { return ZeltoCom_SendToAll_Thread(nullptr, name, "GETSERIAL", buf); }, {-1});
      add("CaptureFromAll_Thread",
          [=] { return ZeltoCom_CaptureFromAll_Thread(nullptr, name, 0, 0, 0); }, {-1});
      add("CaptureFromAllSpectrometers_Thread",
          [=] { return ZeltoCom_CaptureFromAllSpectrometers_Thread(nullptr, name, 0, 0, 0); },
          {-1});
      add("IsConnected", [=] { return ZeltoCom_IsConnected(buf, name, 0); }, {0, -1});
      add("AreConnected", [=] { return ZeltoCom_AreConnected(bufs, &name, 1, 0); }, {0, -1});
      add("Isconnected_thread",
          [=] { return ZeltoCom_Isconnected_thread(bufs, name, &name, 1, 0); }, {0, -1});
      if (name == nullptr || name[0] == '\0' || std::string(name) == long_) {
        add("Send command", [=, this] { return ZeltoCom_Send(open_.c_str(), name, buf); },
            {0, -1});
      }
    }
    const char* open = open_.c_str();
    const char* closed = closed_.c_str();
    const float nan = std::nanf("");
    calls.insert(calls.end(), {
        {"Open(negative rate)", [=] { return ZeltoCom_Open(closed, -57600); }, {-1}},
        {"Open(huge rate)", [=] { return ZeltoCom_Open(closed, INT_MAX); }, {-1}},
        {"OpenSN(negative rate)", [] { return ZeltoCom_OpenSN("ZS0009", INT_MIN); }, {-1}},
        {"GetOpenedPorts(null)", [] { return ZeltoCom_GetOpenedPorts(nullptr); }, {0}},
        {"GetOpenedPortsS(null)", [] { return ZeltoCom_GetOpenedPortsS(nullptr, ';'); }, {0}},
        {"GetPortBySN(null buffer)", [] { return ZeltoCom_GetPortBySN(nullptr, "ZS0001"); }, {-1}},
        {"GetSNByPort(null buffer)", [=] { return ZeltoCom_GetSNByPort(nullptr, open); }, {-1}},
        {"GetDeviceType(null buffer)", [=] { return ZeltoCom_GetDeviceType(open, nullptr); }, {-1}},
        {"SetResponseTimeout(negative)", [] { return ZeltoCom_SetResponseTimeout(-1); }, {-1}},
        {"SetResponseBufferSize(negative)", [] { return ZeltoCom_SetResponseBufferSize(INT_MIN); },
         {-1}},
        {"Capture(negative range)", [=] { return ZeltoCom_Capture(open, 0, -1, 0); }, {-1}},
        {"Capture(huge range)", [=] { return ZeltoCom_Capture(open, 0, INT_MAX, 0); }, {-1}},
        {"Capture(negative frames)", [=] { return ZeltoCom_Capture(open, 1, 1, -1); }, {-1}},
        {"Capture(huge frames)", [=] { return ZeltoCom_Capture(open, 1, 1, INT_MAX); }, {-1}},
        {"SpectrometerCapture(analyser)", [=] { return ZeltoCom_SpectrometerCapture(open, 0, 0, 0); },
         {-1}},
        {"SpectrometerCapture(negative exposure)",
         [=] { return ZeltoCom_SpectrometerCapture(open, 0, 1, -1.0f); }, {-1}},
        {"SpectrometerCapture(huge exposure)",
         [=] { return ZeltoCom_SpectrometerCapture(open, 0, 1, 1e30f); }, {-1}},
        {"DaisyChain_Capture(huge range)", [=] { return ZeltoCom_DaisyChain_Capture(open, 0, 7, 0); },
         {-1}},
        {"DaisyChain_Capture(frames)", [=] { return ZeltoCom_DaisyChain_Capture(open, 1, 1, 16); },
         {-1}},
        {"DaisyChain_Send(no command)",
         [=] { return ZeltoCom_DaisyChain_Send(open, "ZS0001", "", nullptr); }, {-1}},
        {"GetResponseByPort(null buffer)", [=] { return ZeltoCom_GetResponseByPort(open, nullptr); },
         {0}},
        {"SpectrometerDark(exposure not a number)",
         [=] { return ZeltoCom_SpectrometerDark(open, 0, 1, nan); }, {-1}},
    });
    // Project and bin files.
    for (const auto& [kind, name] : BadNames()) {
      calls.push_back({"OpenProject(" + kind + ")", [=] { return ZeltoCom_OpenProject(name); }, {0}});
      calls.push_back({"Binning_GetBinFromVECFile(" + kind + ")",
                       [=] { return ZeltoCom_Binning_GetBinFromVECFile(name, buf, 0.3f, 0.3f); },
                       {-1}});
    }
    calls.insert(calls.end(), {
        {"OpenProject(directory)", [] { return ZeltoCom_OpenProject("/tmp"); }, {0}},
        {"CloseProject(no project)", [] { return ZeltoCom_CloseProject(); }, {0}},
        {"Binning_GetBinFromVECFile(nonexistent file)",
         [=] { return ZeltoCom_Binning_GetBinFromVECFile("/nonexistent/bins.vec", buf, 0, 0); },
         {-1}},
        {"Binning_GetBinFromVECFile(null buffer)",
         [] { return ZeltoCom_Binning_GetBinFromVECFile("/nonexistent/bins.vec", nullptr, 0, 0); },
         {-1}},
    });
    // ---- Many ports at once: missing arrays and counts below zero ----
    const char* const* paths = &open_ptr_;
    calls.insert(calls.end(), {
        {"Open_Multi(no results)", [=] { return ZeltoCom_Open_Multi(nullptr, paths, 1, 0); }, {-1}},
        {"Open_Multi(no paths)", [=] { return ZeltoCom_Open_Multi(ints, nullptr, 1, 0); }, {-1}},
        {"Open_Multi(negative)", [=] { return ZeltoCom_Open_Multi(ints, paths, -1, 0); }, {-1}},
        {"Open_Multi(bad rate)", [=] { return ZeltoCom_Open_Multi(ints, paths, 1, 7); }, {-1}},
        {"OpenSN_Multi(no serials)", [=] { return ZeltoCom_OpenSN_Multi(ints, nullptr, 1, 0); },
         {-1}},
        {"Close_Multi(negative)", [=] { return ZeltoCom_Close_Multi(ints, paths, INT_MIN); }, {-1}},
        {"CloseSN_Multi(no results)", [=] { return ZeltoCom_CloseSN_Multi(nullptr, paths, 1); },
         {-1}},
        {"Send_Multi(no responses)",
         [=] { return ZeltoCom_Send_Multi(ints, paths, 1, paths, nullptr); }, {-1}},
        {"Send_Multi(more ports than open)",
         [=] { return ZeltoCom_Send_Multi(ints, paths, 2, paths, bufs); }, {-1}},
        {"SendSN_Multi(no commands)",
         [=] { return ZeltoCom_SendSN_Multi(ints, paths, 1, nullptr, bufs); }, {-1}},
        {"Send_Multi_NR(no lists)",
         [=] { return ZeltoCom_Send_Multi_NR(ints, nullptr, 1, nullptr, ';'); }, {-1}},
        {"Send_Multi_NR(no results)",
         [=] { return ZeltoCom_Send_Multi_NR(nullptr, open, 1, "ID", ';'); }, {-1}},
        {"SendToAll(no results)", [=] { return ZeltoCom_SendToAll(nullptr, "ID", bufs); }, {-1}},
        {"SendToAll(no responses)", [=] { return ZeltoCom_SendToAll(ints, "ID", nullptr); }, {-1}},
        {"SendToAll_NR(no command)", [=] { return ZeltoCom_SendToAll_NR(ints, nullptr); }, {-1}},
        {"CaptureFromAll(no results)", [] { return ZeltoCom_CaptureFromAll(nullptr, 0, 0, 0); },
         {-1}},
        {"CaptureFromAll(huge range)", [=] { return ZeltoCom_CaptureFromAll(ints, 0, 99, 0); },
         {-1}},
        {"CaptureFromAllSpectrometers(no results)",
         [] { return ZeltoCom_CaptureFromAllSpectrometers(nullptr, 0, 0, 0); }, {-1}},
        {"CaptureFromAllSpectrometers(analyser)",
         [=] { return ZeltoCom_CaptureFromAllSpectrometers(ints, 0, 0, 0); }, {0}},
        {"AreConnected(no buffers)", [=] { return ZeltoCom_AreConnected(nullptr, paths, 1, 0); },
         {-1}},
        {"AreConnected(negative)", [=] { return ZeltoCom_AreConnected(bufs, paths, -1, 0); }, {-1}},
        {"AreConnectedS(no buffer)", [] { return ZeltoCom_AreConnectedS(nullptr, "ZS1", ';', 0); },
         {-1}},
        {"AreConnectedS(no serials)", [=] { return ZeltoCom_AreConnectedS(buf, nullptr, ';', 0); },
         {-1}},
        {"IsConnected(bad rate)", [=] { return ZeltoCom_IsConnected(buf, "ZS0001", 5); }, {-1}},
        {"Detect(no buffers)", [] { return ZeltoCom_Detect(nullptr, 0); }, {-1}},
        {"DetectS(no buffer)", [] { return ZeltoCom_DetectS(nullptr, ';', 0); }, {-1}},
        {"DetectSN(bad rate)", [=] { return ZeltoCom_DetectSN(bufs, -9600); }, {-1}},
        {"ListPortsDetected(null)", [] { return ZeltoCom_ListPortsDetected(nullptr); }, {0}},
        {"ListPortsDetectedTxt(null)", [] { return ZeltoCom_ListPortsDetectedTxt(nullptr, ";"); },
         {0}},
    });
    return calls;
  }

  std::string open_;
  std::string closed_;
  int ints_[4] = {};
  char* bufs_[1] = {buffer_};
  const char* open_ptr_ = nullptr;
  const std::string long_ = std::string(10000, 'Z');
  char buffer_[20000] = {};
};

}  // namespace

TEST_F(BadInputTest, EveryCallFailsWithAnErrorText) {
  for (const BadCall& bad : Calls()) {
    zeltocom::SetError(nullptr, "");
    const int result = bad.call();
    EXPECT_NE(std::ranges::find(bad.failures, result), bad.failures.end())
        << bad.what << " returned " << result;
    EXPECT_NE(LastError(), "") << bad.what << " set no error text";
  }
  // The open port survived all of it.
  char answer[64];
  EXPECT_EQ(ZeltoCom_Send(open_.c_str(), "GETSERIAL", answer), 1) << LastError();
  EXPECT_STREQ(answer, "ZS0001");
}

TEST_F(BadInputTest, CallsWithoutAResultTakeNullBuffers) {
  ZeltoCom_GetLibraryVersion(nullptr);
  EXPECT_EQ(ZeltoCom_GetError_Description(nullptr), nullptr);
  EXPECT_EQ(ZeltoCom_GetError_DescriptionByPort(nullptr, nullptr), nullptr);
  EXPECT_EQ(ZeltoCom_GetError_DescriptionBySN(long_.c_str(), nullptr), nullptr);
  ZeltoCom_AddDetectionFilter(nullptr);
  ZeltoCom_AddDetectionFilter(long_.c_str());
  ZeltoCom_ClearDetectionFilters();
  // An answer nobody wants is still taken and kept.
  EXPECT_EQ(ZeltoCom_Send(open_.c_str(), "GETSERIAL", nullptr), 1);
  EXPECT_EQ(Record(*ports_.back())->lastResponse, "ZS0001");
}
