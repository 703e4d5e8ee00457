#include "device/identify.hpp"

#include <gtest/gtest.h>

#include "device/capture_command.hpp"

using namespace zeltocom;

TEST(DeviceType, ModelCodesMatchWholeTextsNodesAndColourStandardsAnyPart) {
  EXPECT_EQ(CMD_GetDeviceType("Zelto 5-P"), DEVTYPE_ICT);
  EXPECT_EQ(CMD_GetDeviceType("Zelto 05-P"), DEVTYPE_ICT);
  EXPECT_EQ(CMD_GetDeviceType("Zelto 07-PX"), DEVTYPE_IR);
  EXPECT_EQ(CMD_GetDeviceType("Zelto 20-W2"), DEVTYPE_SPECTROMETER);
  // Only some codes are written without padding, numbers stop at 20, and
  // case and trailing characters matter.
  EXPECT_EQ(CMD_GetDeviceType("Zelto 5-M"), DEVTYPE_UNKNOWN);
  EXPECT_EQ(CMD_GetDeviceType("Zelto 21-W2"), DEVTYPE_UNKNOWN);
  EXPECT_EQ(CMD_GetDeviceType("Zelto 00-P"), DEVTYPE_UNKNOWN);
  EXPECT_EQ(CMD_GetDeviceType("Zelto 07-W1"), DEVTYPE_UNKNOWN);
  EXPECT_EQ(CMD_GetDeviceType("zelto 05-P"), DEVTYPE_UNKNOWN);
  EXPECT_EQ(CMD_GetDeviceType("Zelto 05-P "), DEVTYPE_UNKNOWN);
  EXPECT_EQ(CMD_GetDeviceType(""), DEVTYPE_UNKNOWN);
  // Nodes and colour standards are found inside a text, the node first.
  EXPECT_EQ(CMD_GetDeviceType("Zelto Node 4"), DEVTYPE_NODE);
  EXPECT_EQ(CMD_GetDeviceType("ZELTO NODE"), DEVTYPE_UNKNOWN);
  EXPECT_EQ(CMD_GetDeviceType("xx std_clr yy"), DEVTYPE_CLRSTD);
  EXPECT_EQ(CMD_GetDeviceType("ZELTO NODE CLR_STD"), DEVTYPE_CLRSTD);
  EXPECT_EQ(CMD_GetDeviceType("Zelto Node CLR_STD"), DEVTYPE_NODE);
}

TEST(CaptureTimeout, FamiliesRangesAndFloors) {
  EXPECT_EQ(CMD_GetCaptureTimeout(DEVTYPE_FUNCTIONAL, 0, 2, 0, 1, 1), 1570u);
  EXPECT_EQ(CMD_GetCaptureTimeout(DEVTYPE_FUNCTIONAL, 0, 5, 0, 1, 1), 200u);
  EXPECT_EQ(CMD_GetCaptureTimeout(DEVTYPE_FUNCTIONAL, 1, 0, 0, 1, 1), 10070u);
  // Exposure and averages scale the capture, not the fixed overhead.
  EXPECT_EQ(CMD_GetCaptureTimeout(DEVTYPE_ICT, 0, 2, 0, 2, 3), 9070u);
  EXPECT_EQ(CMD_GetCaptureTimeout(DEVTYPE_DISPLAY, 0, 2, 0, 1, 1), 7870u);

  // Fast ranges hit the floors: 300 ms for low-light and colour models.
  EXPECT_EQ(CMD_GetCaptureTimeout(DEVTYPE_ICT, 0, 6, 0, 1, 1), 150u);
  EXPECT_EQ(CMD_GetCaptureTimeout(DEVTYPE_LOWLIGHT, 0, 6, 0, 1, 1), 300u);
  EXPECT_EQ(CMD_GetCaptureTimeout(DEVTYPE_CLR, 0, 6, 0, 1, 1), 300u);
  // A negative range divides nothing and multiplies nothing.
  EXPECT_EQ(CMD_GetCaptureTimeout(DEVTYPE_ICT, 0, -1, 0, 1, 1), 1570u);
}

TEST(CaptureCommand, RangeAndPwmForms) {
  // Range 0 and frames 0 are left out, frames count only with PWM, and any
  // PWM flag but 0 asks for PWM.
  EXPECT_EQ(BuildCaptureCommand("C", 0, 4, 5), "C4");
  EXPECT_EQ(BuildCaptureCommand("C", 2, 3, 16), "C3PWM16");
  EXPECT_EQ(BuildCaptureCommand("C", 1, 0, 12), "CPWM12");
  EXPECT_EQ(BuildCaptureCommand("BUSC", 1, 0, 0), "BUSCPWM");
}
