#include "device/identify.hpp"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "device/bus.hpp"
#include "device/capture_command.hpp"
#include "device/settings.hpp"
#include "serial/baudrates.hpp"

using namespace zeltocom;

TEST(DeviceType, ModelCodesMatchWholeTextsNodesAndColourStandardsAnyPart) {
  const std::pair<int, std::vector<const char*>> rows[] = {
      {DEVTYPE_ICT, {"Zelto 5-P", "Zelto 05-P"}},
      {DEVTYPE_IR, {"Zelto 07-PX"}},
      {DEVTYPE_SPECTROMETER, {"Zelto 20-W2"}},
      // Only some codes are written without padding, numbers stop at 20, and
      // case and trailing characters matter.
      {DEVTYPE_UNKNOWN,
       {"Zelto 5-M", "Zelto 21-W2", "Zelto 00-P", "Zelto 07-W1", "zelto 05-P", "Zelto 05-P ", "",
        "ZELTO NODE"}},
      // Nodes and colour standards are found inside a text, the node first.
      {DEVTYPE_NODE, {"Zelto Node 4", "Zelto Node CLR_STD"}},
      {DEVTYPE_CLRSTD, {"xx std_clr yy", "ZELTO NODE CLR_STD"}},
  };
  for (const auto& [type, texts] : rows) {
    for (const char* text : texts) EXPECT_EQ(CMD_GetDeviceType(text), type) << '"' << text << '"';
  }
}

TEST(CaptureTimeout, FamiliesRangesAndFloors) {
  const struct {
    const char* what;
    int type, pwm, range, frames, exposure, averages;
    TimeoutMs ms;
  } rows[] = {
      // (base x 2.4^(2 - range) + 58) x 1.2, rounded up
      {"range 2", DEVTYPE_FUNCTIONAL, 0, 2, 0, 1, 1, 1570},
      {"range 1", DEVTYPE_FUNCTIONAL, 0, 1, 0, 1, 1, 3670},
      {"range 3", DEVTYPE_FUNCTIONAL, 0, 3, 0, 1, 1, 695},
      // from range 4 on, 1.2 times longer
      {"range 4", DEVTYPE_FUNCTIONAL, 0, 4, 0, 1, 1, 383},
      {"automatic range", DEVTYPE_FUNCTIONAL, 0, 0, 0, 1, 1, 1320},
      {"PWM, default frames", DEVTYPE_FUNCTIONAL, 1, 0, 0, 1, 1, 10070},
      {"PWM, 2 frames", DEVTYPE_FUNCTIONAL, 1, 5, 2, 1, 1, 461},
      // Exposure and averages scale the capture, not the fixed overhead.
      {"exposure 2, averages 3", DEVTYPE_ICT, 0, 2, 0, 2, 3, 9070},
      {"display", DEVTYPE_DISPLAY, 0, 2, 0, 1, 1, 7870},
      {"node", DEVTYPE_NODE, 0, 2, 0, 1, 1, 2470},
      {"low-light", DEVTYPE_LOWLIGHT, 0, 2, 0, 1, 1, 2710},
      {"colour", DEVTYPE_CLR, 0, 3, 0, 1, 1, 1170},
      {"colour standard", DEVTYPE_CLRSTD, 0, 2, 0, 1, 1, 1570},
      // Fast ranges hit the floors: 300 ms for low-light and colour models.
      {"floor", DEVTYPE_ICT, 0, 6, 0, 1, 1, 150},
      {"just above the floor", DEVTYPE_ICT, 0, 5, 0, 1, 1, 200},
      {"low-light just under the floor", DEVTYPE_LOWLIGHT, 0, 5, 0, 1, 1, 300},
      {"low-light, 2 averages", DEVTYPE_LOWLIGHT, 0, 5, 0, 1, 2, 528},
      {"colour floor", DEVTYPE_CLR, 0, 6, 0, 1, 1, 300},
      {"display has no 300 ms floor", DEVTYPE_DISPLAY, 0, 6, 0, 0, 1, 150},
      // A negative range divides nothing and multiplies nothing.
      {"negative range", DEVTYPE_ICT, 0, -1, 0, 1, 1, 1570},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    EXPECT_EQ(
        CMD_GetCaptureTimeout(row.type, row.pwm, row.range, row.frames, row.exposure, row.averages),
        row.ms);
  }
}

TEST(CaptureCommand, RangeAndPwmForms) {
  // Range 0 and frames 0 are left out, frames count only with PWM, and any
  // PWM flag but 0 asks for PWM.
  EXPECT_EQ(BuildCaptureCommand("C", 0, 4, 5), "C4");
  EXPECT_EQ(BuildCaptureCommand("C", 2, 3, 16), "C3PWM16");
  EXPECT_EQ(BuildCaptureCommand("C", 1, 0, 12), "CPWM12");
  EXPECT_EQ(BuildCaptureCommand("BUSC", 1, 0, 0), "BUSCPWM");
}

// Hand-overs and short queries are too quick to time against the wall
// clock: their time-outs are pinned here at the slowest and fastest rates.
TEST(ShortTimeouts, CharacterCountsRoundingAndFloors) {
  const double slow = CharTimeMs(9600);  // 1.1458 ms
  const double fast = CharTimeMs(921600);
  EXPECT_EQ(BusFreeTimeoutMs(slow), 38);  // 16 characters + 20
  EXPECT_EQ(BusFreeTimeoutMs(fast), 22);
  // 15 characters + 20 is 37.2 at 9600, under the 80 ms floor either way.
  EXPECT_EQ(BusGetTimeoutMs(slow, Rounding::Down), 80);
  EXPECT_EQ(BusGetTimeoutMs(slow * 4, Rounding::Down), 88);  // 68.75 + 20
  EXPECT_EQ(BusGetTimeoutMs(slow * 4, Rounding::Up), 89);
  // Whole groups of five characters: none at 57600, five at 9600.
  EXPECT_EQ(ChainFreeTimeMs(CharTimeMs(57600)), 50);
  EXPECT_EQ(ChainFreeTimeMs(slow), 75);
  EXPECT_EQ(ChainPollTimeMs(slow), 45);
  EXPECT_EQ(SettingTimeoutMs(slow), 38);   // 18.3 + 20
  EXPECT_EQ(IdentifyTimeoutMs(slow), 31);  // 11.5 + 20
  EXPECT_EQ(IdentifyTimeoutMs(fast), 21);
}
