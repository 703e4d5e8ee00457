// User calibration: a fiber's values in the instrument, their adjustment
// against references, and the RGB adjustment.
#include <climits>
#include <cstdlib>
#include <functional>
#include <tuple>

#include "bench.hpp"

namespace {

class UserCalTest : public SimBench {
 protected:
  // Opens an instrument and lets the library learn its fibers, so that the
  // log holds only what the next call sends.
  zeltosim::SimPort& Open(zeltosim::Config config) {
    zeltosim::SimPort& port = OpenPort(std::move(config));
    int gain = 0;
    EXPECT_EQ(ZeltoCom_UserCal_GetIntensityGain(port.path().c_str(), 1, &gain), 1) << LastError();
    port.clearLog();
    return port;
  }
};

}  // namespace

TEST_F(UserCalTest, ValuesAreSentInTheirFormatsAndSilenceLeavesTheOutputs) {
  zeltosim::SimPort& analyser = Open(Analyser("ZA0001"));
  zeltosim::Config nodeConfig = Analyser("ZN0001");
  nodeConfig.hardware = "Zelto Node 4";
  zeltosim::SimPort& node = Open(nodeConfig);
  const char* a = analyser.path().c_str();
  const char* n = node.path().c_str();
  float x = 0, y = 0;
  int offset = 0, gain = 0;
  double factor = 0;
  struct Row {
    zeltosim::SimPort& port;
    std::function<int()> call;
    std::string outcome;
    std::string sent;
  };
  const std::string badGain = "-1: Intensity gain should be a value between 50 and 150";
  const Row rows[] = {
      {analyser, [&] { return ZeltoCom_UserCal_SetxyOffsets(a, 2, 0.0f, -0.25f, 2); }, "1",
       "SETXOFFSET02+0.000 SETYOFFSET02-0.250"},
      {analyser, [&] { return ZeltoCom_UserCal_SetxyOffsets(a, 1, 0.5f, 0.0f, 0); }, "1",
       "PUTXOFFSET01+0.500 PUTYOFFSET01+0.000"},
      {analyser, [&] { return ZeltoCom_UserCal_SetWavelengthOffset(a, 1, -3, 0); }, "1",
       "PUTWAVELENGTHOFFSET01-03"},
      {analyser, [&] { return ZeltoCom_UserCal_SetIntensityGain(a, 2, 50, 1); }, "1",
       "SETINTGAIN02050"},
      {analyser, [&] { return ZeltoCom_UserCal_SetIntensityGain(a, 2, 120, 2); }, "1",
       "PUTINTGAIN02120"},
      {analyser, [&] { return ZeltoCom_UserCal_SetIntensityGain(a, 2, 49, 1); }, badGain, ""},
      {analyser, [&] { return ZeltoCom_UserCal_SetIntensityGain(a, 2, 151, 1); }, badGain, ""},
      {analyser, [&] { return ZeltoCom_UserCal_SetAbsIntFactor(a, 1, 1.5, 1); }, "1",
       "SETABSINTMULT011.50000E+00"},
      {analyser, [&] { return ZeltoCom_UserCal_SetAbsIntFactor(a, 1, 1e-100, 2); }, "1",
       "PUTABSINTMULT011.00000E-00"},
      {node, [&] { return ZeltoCom_UserCal_SetIntensityGain(n, 2, 100, 1); }, "1",
       "SETINTGAIN002100"},
      {node, [&] { return ZeltoCom_UserCal_GetxyOffsets(n, 1, &x, &y); }, "1",
       "GETXOFFSET001 GETYOFFSET001"},
      {node, [&] { return ZeltoCom_UserCal_GetAbsIntFactor(n, 2, &factor); }, "1",
       "GETABSINTMULT002"},
      // Resets store the neutral values.
      {analyser, [&] { return ZeltoCom_UserCal_ResetxyOffsets(a, 1); }, "1",
       "SETXOFFSET01+0.000 SETYOFFSET01+0.000"},
      {analyser, [&] { return ZeltoCom_UserCal_ResetWavelengthOffset(a, 1); }, "1",
       "SETWAVELENGTHOFFSET01+00"},
      {analyser, [&] { return ZeltoCom_UserCal_ResetIntensityGain(a, 1); }, "1", "SETINTGAIN01100"},
      {analyser, [&] { return ZeltoCom_UserCal_ResetAbsIntFactor(a, 1); }, "1",
       "SETABSINTMULT011.00000E+00"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE("row " + std::to_string(&row - rows));
    row.port.clearLog();
    EXPECT_EQ(Outcome(row.call()), row.outcome);
    EXPECT_EQ(Sent(row.port), Words(row.sent));
  }

  // Without an answer the getters leave the outputs as they were.
  const auto before = std::make_tuple(x, y, offset, gain, factor);
  analyser.master().setFault(zeltosim::Fault::Silent);
  EXPECT_EQ(Outcome(ZeltoCom_UserCal_GetxyOffsets(a, 1, &x, &y)), "0: Unable to read xy offsets");
  EXPECT_EQ(Outcome(ZeltoCom_UserCal_GetWavelengthOffset(a, 1, &offset)),
            "0: Unable to read Wavelength offset");
  EXPECT_EQ(Outcome(ZeltoCom_UserCal_GetIntensityGain(a, 1, &gain)),
            "0: Unable to read Intensity gain");
  EXPECT_EQ(Outcome(ZeltoCom_UserCal_GetAbsIntFactor(a, 1, &factor)),
            "0: Unable to read Absolute Intensity factor");
  EXPECT_EQ(std::tie(x, y, offset, gain, factor), before);
  EXPECT_EQ(Outcome(ZeltoCom_UserCal_GetxyOffsets(a, 1, &x, nullptr)),
            "-1: No buffer given for the result");
}

TEST_F(UserCalTest, RgbAdjustmentSendsTheTakenReadingsAndTheTrueValues) {
  // Beyond the 20 fibers of the instruments the reference tables were made for.
  zeltosim::SimPort& port = Open(Analyser("ZA0001", 30));
  const char* p = port.path().c_str();
  EXPECT_EQ(Outcome(ZeltoCom_UserCal_TakeRGBCurrentValues(p, 31, 'R')),
            "-1: Fiber should be a value between 1 and 30");
  const auto take = [&](zeltosim::Fiber light, char colour) {
    port.master().setFiber(24, light);
    EXPECT_EQ(ZeltoCom_Capture(p, 0, 0, 0), 1) << LastError();
    return ZeltoCom_UserCal_TakeRGBCurrentValues(p, 25, colour);
  };
  ASSERT_EQ(take({1.0, 0.0, 0.0, 1000.0}, 'R'), 1) << LastError();
  ASSERT_EQ(take({0.1, 0.8, 0.0, 500.0}, 'G'), 1) << LastError();
  ASSERT_EQ(take({0.0, 0.1, 0.9, 200.0}, 'B'), 1) << LastError();
  // Refusals leave what was taken.
  port.clearLog();
  EXPECT_EQ(Outcome(take({0.0, 0.0, 1.0, 100.0}, 'r')),
            "0: Wrong Color. Please use REG, GREEN or BLUE.");
  EXPECT_EQ(Sent(port), (std::vector<std::string>{"C", "GETINTENSITY25", "GETRGBEXT25"}));
  EXPECT_EQ(Outcome(take({1.0, 0.0, 0.0, 0.0}, 'R')), "0: Under-range detected");

  port.clearLog();
  ASSERT_EQ(Outcome(ZeltoCom_UserCal_AdjustRGB(p, 25, 0.64f, 0.33f, 1234.5, 0.30f, 0.60f, 100.0,
                                               0.15f, 0.06f, 50.0)),
            "1");
  EXPECT_EQ(
      Sent(port),
      (std::vector<std::string>{
          "PUTREDR250100000", "PUTREDG250000000", "PUTREDB250000000", "PUTGREENR250005000",
          "PUTGREENG250040000", "PUTGREENB250000000", "PUTBLUER250000000", "PUTBLUEG250002000",
          "PUTBLUEB250018000", "LEARNREDx250.6400", "LEARNREDy250.3300", "LEARNREDint251.23450E+03",
          "LEARNGREENx250.3000", "LEARNGREENy250.6000", "LEARNGREENint251.00000E+02",
          "LEARNBLUEx250.1500", "LEARNBLUEy250.0600", "LEARNBLUEint255.00000E+01", "SETRGBM25"}));

  ASSERT_EQ(ZeltoCom_UserCal_SetAbsIntFactor(p, 25, 2.0, 0), 1);
  port.clearLog();
  ASSERT_EQ(ZeltoCom_UserCal_ResetRGBAdj(p, 25), 1) << LastError();
  EXPECT_EQ(Sent(port), (std::vector<std::string>{"RESETCALMODE25", "RESETRGBM25",
                                                  "SETABSINTMULT251.00000E+00"}));
}

// Offsets beyond what "+dd" carries are refused before anything is sent,
// however the arithmetic would overflow.
TEST_F(UserCalTest, WavelengthOffsetsTheCommandCannotCarrySendNothing) {
  zeltosim::SimPort& port = Open(Analyser("ZA0001"));
  const char* p = port.path().c_str();
  ASSERT_EQ(ZeltoCom_Capture(p, 0, 0, 0), 1) << LastError();
  ASSERT_EQ(Send(port, "GETWAVELENGTH01"), 1);
  const int seen = std::atoi(answer_);
  ASSERT_GT(seen, 380);
  struct Row {
    int offset;  // stored before the adjustment
    int reference;
    const char* reading;  // the instrument's wavelength, "" for its own
    std::string outcome;
  };
  const std::vector<Row> rows = {
      {0, INT_MIN, "",
       "0: The new wavelength offset (" + std::to_string(0LL + INT_MIN - seen) +
           ") is outside -999 to 999"},
      // The reading follows the offset stored.
      {999, INT_MAX, "",
       "0: The new wavelength offset (" + std::to_string(0LL + INT_MAX - seen) +
           ") is outside -999 to 999"},
      {-999, -1000, "2147483647",
       "0: The new wavelength offset (-2147485646) is outside -999 to 999"},
      {-999, 560, "-2147483648",
       "0: The new wavelength offset (2147483209) is outside -999 to 999"},
      {0, seen + 999, "", "1"},
      {0, seen - 1000, "", "0: The new wavelength offset (-1000) is outside -999 to 999"},
  };
  for (const Row& row : rows) {
    ASSERT_EQ(ZeltoCom_UserCal_SetWavelengthOffset(p, 1, row.offset, 1), 1) << LastError();
    port.master().setAnswer("GETWAVELENGTH01", row.reading);
    port.clearLog();
    EXPECT_EQ(Outcome(ZeltoCom_UserCal_AdjustWavelengthOffset(p, 1, row.reference)), row.outcome)
        << row.reference;
    const bool written = row.outcome == "1";
    EXPECT_EQ(Sent(port).back(), written ? "SETWAVELENGTHOFFSET01+999" : "GETWAVELENGTHOFFSET01");
  }
  port.clearLog();
  for (int offset : {1000, -1000, INT_MIN, INT_MAX}) {
    EXPECT_EQ(Outcome(ZeltoCom_UserCal_SetWavelengthOffset(p, 1, offset, 0)),
              "-1: Wavelength offset should be a value between -999 and 999");
  }
  EXPECT_EQ(Sent(port), std::vector<std::string>{});
  ASSERT_EQ(ZeltoCom_UserCal_SetWavelengthOffset(p, 1, -999, 0), 1) << LastError();
  EXPECT_EQ(Sent(port), std::vector<std::string>{"PUTWAVELENGTHOFFSET01-999"});
}

// A reading that is no finite number of its type, or that no value could
// follow, fails the call; it never becomes a value, and nothing is written
// from it.
TEST_F(UserCalTest, RefusedReadingsWriteNothing) {
  zeltosim::SimPort& port = Open(Analyser("ZA0001"));
  const char* p = port.path().c_str();
  ASSERT_EQ(Send(port, "SETLIN"), 1);
  ASSERT_EQ(ZeltoCom_Capture(p, 0, 0, 0), 1) << LastError();
  constexpr const char* kWrong = "0: Wrong reading from the instrument";
  constexpr const char* kRgb = "0: Wrong RGB reading";
  constexpr const char* kUnder = "0: Under-range detected";
  float x = 7, y = 7;
  int whole = 7;
  double factor = 7;
  struct Row {
    const char* command;
    const char* answer;
    std::function<int()> call;
    std::string outcome;
  };
  const auto offset = [&] { return ZeltoCom_UserCal_GetWavelengthOffset(p, 1, &whole); };
  const auto gain = [&] { return ZeltoCom_UserCal_GetIntensityGain(p, 1, &whole); };
  const auto mult = [&] { return ZeltoCom_UserCal_GetAbsIntFactor(p, 1, &factor); };
  const auto xy = [&] { return ZeltoCom_UserCal_GetxyOffsets(p, 1, &x, &y); };
  const auto rgb = [&] { return ZeltoCom_UserCal_TakeRGBCurrentValues(p, 1, 'R'); };
  const auto adjustGain = [&](int reference) {
    return [&, reference] { return ZeltoCom_UserCal_AdjustIntensityGain(p, 1, reference); };
  };
  const auto adjustAbs = [&] { return ZeltoCom_UserCal_AdjustAbsIntFactor(p, 1, 3.0); };
  const std::vector<Row> rows = {
      {"GETWAVELENGTHOFFSET01", "2147483648", offset, kWrong},
      {"GETINTGAIN01", "12abc", gain, kWrong},
      {"GETABSINTMULT01", "nan", mult, kWrong},
      {"GETABSINTMULT01", "inf", mult, kWrong},
      {"GETXOFFSET01", "1E39", xy, kWrong},
      {"GETYOFFSET01", "-inf", xy, kWrong},
      {"GETWAVELENGTH01", "nan", [&] { return ZeltoCom_UserCal_AdjustWavelengthOffset(p, 1, 560); },
       kWrong},
      {"GETXYI01", "nan 0.4232 16411",
       [&] { return ZeltoCom_UserCal_AdjustxyOffsets(p, 1, 0.33f, 0.41f); }, kWrong},
      {"GETINTENSITY01", "99999999999", adjustGain(1500), kWrong},
      {"GETINTENSITY01", "1200", adjustGain(2400),
       "0: The new intensity gain (200) is outside 50 to 150"},
      {"GETINTENSITY01", "0", adjustGain(1000), kUnder},
      {"GETABSINT01", "inf", adjustAbs, kWrong},
      {"GETABSINT01", "0", adjustAbs, kUnder},
      {"GETABSINT01", "1E-300", adjustAbs,
       "0: The new absolute intensity factor (3e+300) is outside 1E-99 to 1E+99"},
      // Raw values beyond what the RGB commands carry.
      {"GETRGBEXT01", "-1 5 5", rgb, kRgb},
      {"GETRGBEXT01", "10000000 5 5", rgb, kRgb},
      {"GETRGBEXT01", "5 5", rgb, kRgb},
      {"GETRGBEXT01", "5 5 4294967296", rgb, kRgb},
      {"GETRGBEXT01", "5 x 5", rgb, kRgb},
      {"GETRGBEXT01", "9999999 0 12 extra", rgb, "1"},
  };
  for (const Row& row : rows) {
    port.master().setAnswer(row.command, row.answer);
    port.clearLog();
    EXPECT_EQ(Outcome(row.call()), row.outcome) << row.command << " " << row.answer;
    for (const std::string& sent : Sent(port)) {
      EXPECT_FALSE(sent.starts_with("SET") || sent.starts_with("PUT")) << sent;
    }
    port.master().setAnswer(row.command, "");
  }
  EXPECT_EQ(whole, 7);
  EXPECT_EQ(factor, 7.0);
  EXPECT_EQ(y, 7.0f);  // x was read before y failed
  EXPECT_EQ(x, 0.0f);

  // Blanks around a number, its sign and a decimal comma are no fault.
  port.master().setAnswer("GETABSINTMULT01", " 1,5 ");
  EXPECT_EQ(mult(), 1) << LastError();
  EXPECT_EQ(factor, 1.5);
  port.master().setAnswer("GETWAVELENGTHOFFSET01", "+4");
  EXPECT_EQ(offset(), 1) << LastError();
  EXPECT_EQ(whole, 4);
}
