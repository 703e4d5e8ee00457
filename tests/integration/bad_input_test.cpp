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

// Where the calls write their results, at namespace scope so that the rows'
// lambdas reach them without capturing: room enough for any call.
char buf[20000];
char* bufs[2] = {buf, buf + 10000};
int ints[4];
double doubles[1];
float floats[4];
unsigned char bytes[4];
unsigned uns[2];

// One row of the table: the call as written, then the results that count as its failure.
// clang-format off
#define BAD_CALL(call, ...) BadCall{#call, [=] { return call; }, {__VA_ARGS__}}
// clang-format on

class BadInputTest : public SimBench {
 protected:
  void SetUp() override {
    SimBench::SetUp();
    closed_ = OpenPort(Analyser("ZS0002")).path();
    ASSERT_EQ(ZeltoCom_Close(closed_.c_str()), 1);
    open_ = OpenPort(Analyser("ZS0001")).path();
    paths_[0] = open_.c_str();
    paths_[1] = closed_.c_str();
  }

  // The texts that no call may take for a port, a serial number or an ID.
  std::vector<std::pair<std::string, const char*>> BadNames() const {
    return {{"null", nullptr},
            {"empty", ""},
            {"10000 characters", long_.c_str()},
            {"unknown", "/dev/pts/none"},
            {"closed", closed_.c_str()}};
  }

  // Every call that takes a name, with `name` in each place that takes one.
  std::vector<BadCall> CallsWithName(const char* name) {
    const char* open = open_.c_str();
    std::vector<BadCall> calls = {
        BAD_CALL(ZeltoCom_OpenSN(name, 57600), 0, -1),
        BAD_CALL(ZeltoCom_OpenID(name), -1),
        BAD_CALL(ZeltoCom_Close(name), 0),
        BAD_CALL(ZeltoCom_CloseSN(name), 0),
        BAD_CALL(ZeltoCom_Close_Multi_Thread(nullptr, name), 0),
        BAD_CALL(ZeltoCom_CloseSN_Multi_Thread(nullptr, name), 0),
        BAD_CALL(ZeltoCom_GetPortBySN(buf, name), -1),
        BAD_CALL(ZeltoCom_GetSNByPort(buf, name), -1),
        BAD_CALL(ZeltoCom_GetPortByID(name, buf) == buf && buf[0] == '\0' ? 0 : 1, 0),
        BAD_CALL(ZeltoCom_GetBaudrate(name), 0),
        BAD_CALL(ZeltoCom_GetDeviceType(name, buf), 0),
        BAD_CALL(ZeltoCom_Send(name, "GETSERIAL", buf), -1),
        BAD_CALL(ZeltoCom_SendSN(name, "GETSERIAL", buf), -1),
        BAD_CALL(ZeltoCom_SendByID(name, "GETSERIAL", buf), -1),
        BAD_CALL(ZeltoCom_Send_Multi_Thread(nullptr, name, "GETSERIAL", buf), -1),
        BAD_CALL(ZeltoCom_SetResponseTimeoutAuto(name, 1), -1),
        BAD_CALL(ZeltoCom_Capture(name, 0, 0, 0), -1),
        BAD_CALL(ZeltoCom_SpectrometerCapture(name, 0, 0, 0), -1),
        BAD_CALL(ZeltoCom_SpectrometerDark(name, 0, 0, 0), -1),
        BAD_CALL(ZeltoCom_DaisyChain_Add(name, "ZS0009"), 0),
        BAD_CALL(ZeltoCom_DaisyChain_Add(open, name), 0),
        BAD_CALL(ZeltoCom_DaisyChain_Del(name, "ZS0009"), 0),
        BAD_CALL(ZeltoCom_DaisyChain_Clear(name), 0),
        BAD_CALL(ZeltoCom_DaisyChain_Send(name, "ZS0009", "GETSERIAL", buf), 0, -1),
        BAD_CALL(ZeltoCom_DaisyChain_Send(open, name, "GETSERIAL", buf), 0, -1),
        BAD_CALL(ZeltoCom_DaisyChain_Capture(name, 0, 0, 0), -1),
        BAD_CALL(ZeltoCom_DaisyChain_SpectrometerCapture(name, "ZS0009", 0, 0, 0), 0, -1),
        BAD_CALL(ZeltoCom_DaisyChain_SpectrometerDark(open, name, 0, 0, 0), 0, -1),
        BAD_CALL(ZeltoCom_GetResponseByPort(name, buf), 0),
        BAD_CALL(ZeltoCom_OpenProject(name), 0),
        BAD_CALL(ZeltoCom_Binning_GetBinFromVECFile(name, buf, 0.3f, 0.3f), -1),
        // ---- Many ports at once ----
        BAD_CALL(ZeltoCom_Close_Multi(ints, &name, 1), 0),
        BAD_CALL(ZeltoCom_CloseSN_Multi(ints, &name, 1), 0),
        BAD_CALL(ZeltoCom_SendSN_Multi(ints, &name, 1, &name, bufs), -1),
        BAD_CALL(ZeltoCom_SendToAll_Thread(nullptr, name, "GETSERIAL", buf), -1),
        BAD_CALL(ZeltoCom_CaptureFromAll_Thread(nullptr, name, 0, 0, 0), -1),
        BAD_CALL(ZeltoCom_CaptureFromAllSpectrometers_Thread(nullptr, name, 0, 0, 0), -1),
        BAD_CALL(ZeltoCom_IsConnected(buf, name, 0), 0, -1),
        BAD_CALL(ZeltoCom_AreConnected(bufs, &name, 1, 0), 0, -1),
        BAD_CALL(ZeltoCom_Isconnected_thread(bufs, name, &name, 1, 0), 0, -1),
        // ---- User calibration ----
        BAD_CALL(ZeltoCom_UserCal_ResetRGBAdj(name, 1), -1),
        BAD_CALL(ZeltoCom_UserCal_TakeRGBCurrentValues(name, 1, 'R'), -1),
        BAD_CALL(ZeltoCom_UserCal_AdjustRGB(name, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1), -1),
        BAD_CALL(ZeltoCom_UserCal_ResetxyOffsets(name, 1), -1),
        BAD_CALL(ZeltoCom_UserCal_GetxyOffsets(name, 1, floats, floats), -1),
        BAD_CALL(ZeltoCom_UserCal_SetxyOffsets(name, 1, 0, 0, 1), -1),
        BAD_CALL(ZeltoCom_UserCal_AdjustxyOffsets(name, 1, 0.3f, 0.3f), -1),
        BAD_CALL(ZeltoCom_UserCal_ResetWavelengthOffset(name, 1), -1),
        BAD_CALL(ZeltoCom_UserCal_GetWavelengthOffset(name, 1, ints), -1),
        BAD_CALL(ZeltoCom_UserCal_SetWavelengthOffset(name, 1, 0, 1), -1),
        BAD_CALL(ZeltoCom_UserCal_AdjustWavelengthOffset(name, 1, 560), -1),
        BAD_CALL(ZeltoCom_UserCal_ResetIntensityGain(name, 1), -1),
        BAD_CALL(ZeltoCom_UserCal_GetIntensityGain(name, 1, ints), -1),
        BAD_CALL(ZeltoCom_UserCal_SetIntensityGain(name, 1, 100, 1), -1),
        BAD_CALL(ZeltoCom_UserCal_AdjustIntensityGain(name, 1, 1000), -1),
        BAD_CALL(ZeltoCom_UserCal_ResetAbsIntFactor(name, 1), -1),
        BAD_CALL(ZeltoCom_UserCal_GetAbsIntFactor(name, 1, doubles), -1),
        BAD_CALL(ZeltoCom_UserCal_SetAbsIntFactor(name, 1, 1.0, 1), -1),
        BAD_CALL(ZeltoCom_UserCal_AdjustAbsIntFactor(name, 1, 1.0), -1),
        // ---- External trigger ----
        BAD_CALL(ZeltoCom_ExternalTrigger_Enable(name, 1, 0, "XYI", 0, 0, 1), -1),
        BAD_CALL(ZeltoCom_ExternalTrigger_Disable(name, 1), -1),
        BAD_CALL(ZeltoCom_ExternalTrigger_Listen(name), -1),
        BAD_CALL(ZeltoCom_ExternalTrigger_Abort(name), -1),
        BAD_CALL(ZeltoCom_ExternalTrigger_isFinished(name), -1),
        // ---- Sequences ----
        BAD_CALL(ZeltoCom_Sequence_Setup(name, 0, 0, 0, 1, 0), -1),
        BAD_CALL(ZeltoCom_Sequence_Capture(name, 0), -1),
        BAD_CALL(ZeltoCom_Sequence_ReadIntensity(name, 1, ints), -1),
        BAD_CALL(ZeltoCom_Sequence_ReadxyI(name, 1, floats, floats, ints), -1),
        BAD_CALL(ZeltoCom_Sequence_ReadHSI(name, 1, floats, ints, ints), -1),
        BAD_CALL(ZeltoCom_Sequence_ReadRGBI(name, 1, bytes, bytes, bytes, ints), -1),
        BAD_CALL(ZeltoCom_Sequence_ReadCCT(name, 1, ints, floats), -1),
        BAD_CALL(ZeltoCom_Sequence_ReadWavelength(name, 1, ints), -1),
        BAD_CALL(ZeltoCom_Sequence_SetPatternThresholdHigh(name, 1), -1),
        BAD_CALL(ZeltoCom_Sequence_SetPatternThresholdLow(name, 1), -1),
        BAD_CALL(ZeltoCom_Sequence_GetPattern(name, ints, ints, ints, ints), -1),
        BAD_CALL(ZeltoCom_Sequence_GetSweepingPattern(name, 1, 0, ints, ints, ints), -1),
        BAD_CALL(ZeltoCom_Sequence_GetFrequency(name, ints, floats, floats, ints), -1),
        BAD_CALL(ZeltoCom_Sequence_FindTestSettings(name, 1, 1, 2, uns, uns, ints), -1),
    };
    // A closed port may be opened again and is still available.
    if (name != closed_.c_str()) {
      calls.insert(calls.end(), {
                                    BAD_CALL(ZeltoCom_Open(name, 57600), 0, -1),
                                    BAD_CALL(ZeltoCom_IsPortAvailable(name), 0),
                                    BAD_CALL(ZeltoCom_Open_Multi_Thread(nullptr, name, 0), 0, -1),
                                    BAD_CALL(ZeltoCom_Open_Multi(ints, &name, 1, 0), 0, -1),
                                    BAD_CALL(ZeltoCom_Detect_Thread(nullptr, name, 0, buf), 0),
                                });
    }
    if (name == nullptr || name[0] == '\0' || std::string(name) == long_) {
      calls.push_back(BAD_CALL(ZeltoCom_Send(open, name, buf), 0, -1));
    }
    return calls;
  }

  // Calls with a bad number, a missing buffer or array, or the wrong kind of port.
  std::vector<BadCall> OtherCalls() {
    const char* open = open_.c_str();
    const char* closed = closed_.c_str();
    const char* const* paths = paths_;
    const char* noFile = "/nonexistent/bins.vec";
    const float nan = std::nanf("");
    return {
        BAD_CALL(ZeltoCom_Open(closed, -57600), -1),
        BAD_CALL(ZeltoCom_Open(closed, INT_MAX), -1),
        BAD_CALL(ZeltoCom_OpenSN("ZS0009", INT_MIN), -1),
        BAD_CALL(ZeltoCom_GetOpenedPorts(nullptr), 0),
        BAD_CALL(ZeltoCom_GetOpenedPortsS(nullptr, ';'), 0),
        BAD_CALL(ZeltoCom_GetPortBySN(nullptr, "ZS0001"), -1),
        BAD_CALL(ZeltoCom_GetSNByPort(nullptr, open), -1),
        BAD_CALL(ZeltoCom_GetDeviceType(open, nullptr), -1),
        BAD_CALL(ZeltoCom_SetResponseTimeout(-1), -1),
        BAD_CALL(ZeltoCom_SetResponseBufferSize(INT_MIN), -1),
        BAD_CALL(ZeltoCom_Capture(open, 0, -1, 0), -1),
        BAD_CALL(ZeltoCom_Capture(open, 1, 1, -1), -1),
        BAD_CALL(ZeltoCom_SpectrometerCapture(open, 0, 1, -1.0f), -1),
        BAD_CALL(ZeltoCom_SpectrometerCapture(open, 0, 1, 1e30f), -1),
        BAD_CALL(ZeltoCom_SpectrometerDark(open, 0, 1, nan), -1),
        BAD_CALL(ZeltoCom_DaisyChain_Capture(open, 0, 7, 0), -1),
        BAD_CALL(ZeltoCom_DaisyChain_Capture(open, 1, 1, 16), -1),
        BAD_CALL(ZeltoCom_DaisyChain_Send(open, "ZS0001", "", nullptr), -1),
        BAD_CALL(ZeltoCom_GetResponseByPort(open, nullptr), 0),
        // ---- Project and bin files ----
        BAD_CALL(ZeltoCom_OpenProject("/tmp"), 0),
        BAD_CALL(ZeltoCom_CloseProject(), 0),
        BAD_CALL(ZeltoCom_Binning_GetBinFromVECFile(noFile, buf, 0, 0), -1),
        BAD_CALL(ZeltoCom_Binning_GetBinFromVECFile(noFile, nullptr, 0, 0), -1),
        // ---- Many ports at once: missing arrays and counts below zero ----
        BAD_CALL(ZeltoCom_Open_Multi(nullptr, paths, 1, 0), -1),
        BAD_CALL(ZeltoCom_Open_Multi(ints, nullptr, 1, 0), -1),
        BAD_CALL(ZeltoCom_Open_Multi(ints, paths, -1, 0), -1),
        BAD_CALL(ZeltoCom_Open_Multi(ints, paths, 1, 7), -1),
        BAD_CALL(ZeltoCom_OpenSN_Multi(ints, nullptr, 1, 0), -1),
        BAD_CALL(ZeltoCom_Close_Multi(ints, paths, INT_MIN), -1),
        BAD_CALL(ZeltoCom_CloseSN_Multi(nullptr, paths, 1), -1),
        BAD_CALL(ZeltoCom_Send_Multi(ints, paths, 1, paths, nullptr), -1),
        BAD_CALL(ZeltoCom_Send_Multi(ints, paths, 2, paths, bufs), -1),  // the second is closed
        BAD_CALL(ZeltoCom_SendSN_Multi(ints, paths, 1, nullptr, bufs), -1),
        BAD_CALL(ZeltoCom_Send_Multi_NR(ints, nullptr, 1, nullptr, ';'), -1),
        BAD_CALL(ZeltoCom_Send_Multi_NR(nullptr, open, 1, "ID", ';'), -1),
        BAD_CALL(ZeltoCom_SendToAll(nullptr, "ID", bufs), -1),
        BAD_CALL(ZeltoCom_SendToAll(ints, "ID", nullptr), -1),
        BAD_CALL(ZeltoCom_SendToAll_NR(ints, nullptr), -1),
        BAD_CALL(ZeltoCom_CaptureFromAll(nullptr, 0, 0, 0), -1),
        BAD_CALL(ZeltoCom_CaptureFromAll(ints, 0, 99, 0), -1),
        BAD_CALL(ZeltoCom_CaptureFromAllSpectrometers(nullptr, 0, 0, 0), -1),
        BAD_CALL(ZeltoCom_CaptureFromAllSpectrometers(ints, 0, 0, 0), 0),  // analysers only
        BAD_CALL(ZeltoCom_AreConnected(nullptr, paths, 1, 0), -1),
        BAD_CALL(ZeltoCom_AreConnected(bufs, paths, -1, 0), -1),
        BAD_CALL(ZeltoCom_AreConnectedS(nullptr, "ZS1", ';', 0), -1),
        BAD_CALL(ZeltoCom_AreConnectedS(buf, nullptr, ';', 0), -1),
        BAD_CALL(ZeltoCom_IsConnected(buf, "ZS0001", 5), -1),
        BAD_CALL(ZeltoCom_Detect(nullptr, 0), -1),
        BAD_CALL(ZeltoCom_DetectS(nullptr, ';', 0), -1),
        BAD_CALL(ZeltoCom_DetectSN(bufs, -9600), -1),
        BAD_CALL(ZeltoCom_ListPortsDetected(nullptr), 0),
        BAD_CALL(ZeltoCom_ListPortsDetectedTxt(nullptr, ";"), 0),
        // ---- User calibration: fibers, outputs and values ----
        BAD_CALL(ZeltoCom_UserCal_TakeRGBCurrentValues(open, 0, 'R'), -1),
        BAD_CALL(ZeltoCom_UserCal_AdjustRGB(open, INT_MAX, 0, 0, 1, 0, 0, 1, 0, 0, 1), -1),
        BAD_CALL(ZeltoCom_UserCal_AdjustRGB(open, 1, nan, 0, 1, 0, 0, 1, 0, 0, 1), -1),
        BAD_CALL(ZeltoCom_UserCal_AdjustxyOffsets(open, INT_MIN, 0.3f, 0.3f), -1),
        BAD_CALL(ZeltoCom_UserCal_GetAbsIntFactor(open, 1, nullptr), -1),
        BAD_CALL(ZeltoCom_UserCal_SetxyOffsets(open, 1, nan, 0, 1), -1),
        BAD_CALL(ZeltoCom_UserCal_SetIntensityGain(open, 1, INT_MIN, 1), -1),
        BAD_CALL(ZeltoCom_UserCal_SetAbsIntFactor(open, 1, HUGE_VAL, 1), -1),
        BAD_CALL(ZeltoCom_UserCal_AdjustAbsIntFactor(open, 1, -HUGE_VAL), -1),
        // ---- External trigger ----
        BAD_CALL(ZeltoCom_ExternalTrigger_Enable(open, INT_MIN, 0, "XYI", 0, 0, 1), 0),
        BAD_CALL(ZeltoCom_ExternalTrigger_Enable(open, 1, 0, noFile, 0, 0, 1), 0),
        BAD_CALL(ZeltoCom_ExternalTrigger_Enable(open, 1, 0, "XYI", 0, UINT_MAX, 1), 0),
        // ---- Sequences: numbers out of range and missing arrays ----
        BAD_CALL(ZeltoCom_Sequence_Setup(open, UINT_MAX, 0, 0, 1, 0), -1),
        BAD_CALL(ZeltoCom_Sequence_Setup(open, 0, 0, 0, INT_MIN, 1), -1),
        BAD_CALL(ZeltoCom_Sequence_Capture(open, INT_MAX), -1),
        BAD_CALL(ZeltoCom_Sequence_ReadxyI(open, INT_MIN, nullptr, nullptr, nullptr), -1),
        BAD_CALL(ZeltoCom_Sequence_SetPatternThresholdLow(open, INT_MIN), -1),
        BAD_CALL(ZeltoCom_Sequence_GetPattern(open, nullptr, ints, ints, ints), -1),
        BAD_CALL(ZeltoCom_Sequence_GetSweepingPattern(open, INT_MAX, 0, nullptr, ints, ints), -1),
        BAD_CALL(ZeltoCom_Sequence_GetFrequency(open, ints, nullptr, nullptr, ints), -1),
        BAD_CALL(ZeltoCom_Sequence_FindTestSettings(open, 1, nan, 2, uns, uns, ints), -1),
        BAD_CALL(ZeltoCom_Sequence_FindTestSettings(open, 1, 1, HUGE_VALF, uns, uns, ints), -1),
        BAD_CALL(ZeltoCom_Sequence_FindTestSettings(open, 1, 5, 1, uns, uns, ints), -1),
        BAD_CALL(ZeltoCom_Sequence_FindTestSettings(open, 1, 1, 2, uns, nullptr, ints), -1),
    };
  }

  std::vector<BadCall> Calls() {
    std::vector<BadCall> calls = OtherCalls();
    for (const auto& [kind, name] : BadNames()) {
      for (BadCall& call : CallsWithName(name)) {
        call.what += " with name " + kind;
        calls.push_back(std::move(call));
      }
    }
    return calls;
  }

  std::string open_;
  std::string closed_;
  const char* paths_[2] = {};  // the open port, then the closed one
  const std::string long_ = std::string(10000, 'Z');
};

#undef BAD_CALL

}  // namespace

TEST_F(BadInputTest, EveryCallFailsWithAnErrorText) {
  for (const BadCall& bad : Calls()) {
    zeltocom::SetError(nullptr, "");
    const int result = bad.call();
    EXPECT_NE(std::ranges::find(bad.failures, result), bad.failures.end())
        << bad.what << " returned " << result;
    EXPECT_NE(LastError(), "") << bad.what << " set no error text";
  }
  // Calls without a result take null buffers.
  ZeltoCom_GetLibraryVersion(nullptr);
  EXPECT_EQ(ZeltoCom_GetError_Description(nullptr), nullptr);
  EXPECT_EQ(ZeltoCom_GetError_DescriptionByPort(nullptr, nullptr), nullptr);
  EXPECT_EQ(ZeltoCom_GetError_DescriptionBySN(long_.c_str(), nullptr), nullptr);
  ZeltoCom_AddDetectionFilter(nullptr);
  ZeltoCom_AddDetectionFilter(long_.c_str());
  ZeltoCom_ClearDetectionFilters();
  ZeltoCom_ExternalTrigger_Listen_thread(nullptr);
  // The open port survived all of it, and an answer nobody wants is still
  // taken and kept.
  EXPECT_EQ(ZeltoCom_Send(open_.c_str(), "GETSERIAL", nullptr), 1) << LastError();
  EXPECT_EQ(Record(*ports_.back())->lastResponse.Get(), "ZS0001");
}
